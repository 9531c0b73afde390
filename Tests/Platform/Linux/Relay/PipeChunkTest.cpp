#include "Platform/Linux/Relay/PipeChunk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Linux/Relay/BufferChunk.h"
#include "Tests/Platform/Linux/Relay/Support/EventLoopTestPeer.h"
#include "Tests/Platform/Linux/Relay/Support/RelayTest.h"
#include "Tests/Platform/Linux/Support/FailingCalls.h"

namespace ostravel::linuxplatform::test {
namespace {

class PipeChunkTest : public RelayTest {
 protected:
  // Called on the loop.
  std::unique_ptr<PipeChunk> makeChunk(const std::string& bytes) {
    auto pipe = loop().pipes().take(nullptr);
    EXPECT_TRUE(pipe);
    EXPECT_EQ(::write(pipe->writeEnd.get(), bytes.data(), bytes.size()),
              static_cast<ssize_t>(bytes.size()));
    return std::make_unique<PipeChunk>(loop().pipes(), *std::move(pipe), bytes.size());
  }
};

std::string text(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

TEST_F(PipeChunkTest, ReadsItsPipeWhenTheBytesAreRequested) {
  onLoop([this] {
    const auto chunk = makeChunk("in the kernel");
    EXPECT_TRUE(chunk->isInPipe());
    EXPECT_EQ(chunk->size(), 13U);
    EXPECT_EQ(text(chunk->bytes()), "in the kernel");
    EXPECT_FALSE(chunk->isInPipe());
    EXPECT_EQ(EventLoopTestPeer::keptPipes(loop()), 1U);
    EXPECT_EQ(text(chunk->bytes()), "in the kernel");
    EXPECT_EQ(chunk->size(), 13U);
  });
}

TEST_F(PipeChunkTest, ReadsAFullPipe) {
  const std::string bytes(512 * 1024, 'p');
  onLoop([&] { EXPECT_EQ(text(makeChunk(bytes)->bytes()), bytes); });
}

TEST_F(PipeChunkTest, MovesIntoASocket) {
  std::array<int, 2> pair{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data()), 0);
  const FileDescriptor near(pair[0]);
  ApplicationSocket far{testing::TestSocket(pair[1])};
  onLoop([&] {
    const auto chunk = makeChunk("through");
    EXPECT_EQ(chunk->moveTo(near.get()), 7);
    EXPECT_FALSE(chunk->isInPipe());
    EXPECT_EQ(EventLoopTestPeer::keptPipes(loop()), 1U);
  });
  EXPECT_EQ(far.receive(7).bytes, "through");
}

TEST_F(PipeChunkTest, AClosedPeerDoesNotEndTheProcess) {
  std::array<int, 2> pair{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data()), 0);
  const FileDescriptor near(pair[0]);
  ::close(pair[1]);
  ASSERT_NE(std::signal(SIGPIPE, SIG_DFL), SIG_ERR);
  onLoop([&] {
    const auto chunk = makeChunk("to nobody");
    EXPECT_EQ(chunk->moveTo(near.get()), -1);
    EXPECT_EQ(errno, EPIPE);
  });
}

TEST_F(PipeChunkTest, ThereIsNoPipeWithoutDescriptors) {
  onLoop([this] {
    const std::size_t before = budget_.inUse();
    testing::failCalls({SYS_pipe2}, EMFILE);
    EXPECT_FALSE(loop().pipes().take(nullptr));
    EXPECT_EQ(budget_.inUse(), before);
  });
}

TEST_F(PipeChunkTest, APipeOfUnknownSizeIsNotUsed) {
  onLoop([this] {
    const std::size_t before = budget_.inUse();
    testing::failCalls({SYS_fcntl, {{1, F_GETPIPE_SZ}}}, EBADF);
    EXPECT_FALSE(loop().pipes().take(nullptr));
    EXPECT_EQ(budget_.inUse(), before);
  });
}

TEST_F(PipeChunkTest, ANonemptyPipeIsNotReused) {
  const std::size_t before = budget_.inUse();
  onLoop([&] {
    makeChunk("left behind");
    EXPECT_EQ(EventLoopTestPeer::keptPipes(loop()), 0U);
    EXPECT_EQ(budget_.inUse(), before);
  });
}

TEST_F(PipeChunkTest, PipesAreLargeCountedAndKeptInABoundedNumber) {
  const std::size_t before = budget_.inUse();
  onLoop([&] {
    PipePool& pool = loop().pipes();
    std::vector<PipePool::Pipe> pipes;
    for (std::size_t count = 0; count < limits::kKeptPipes + 3; ++count) {
      pipes.push_back(*pool.take(nullptr));
    }
    EXPECT_EQ(budget_.inUse(), before + 2 * pipes.size());
    EXPECT_EQ(pipes.front().capacity, static_cast<std::size_t>(limits::kPipeSize));
    for (auto& pipe : pipes) {
      pool.release(std::move(pipe));
    }
    EXPECT_EQ(EventLoopTestPeer::keptPipes(loop()), limits::kKeptPipes);
  });
  EXPECT_EQ(budget_.inUse(), before + 2 * limits::kKeptPipes);
}

TEST_F(PipeChunkTest, ThereIsNoPipeWhenDescriptorsAreScarce) {
  const auto most = budget_.lease(
      static_cast<unsigned>(budget_.limit() - limits::kDescriptorReserve - budget_.inUse()));
  onLoop([this] { EXPECT_FALSE(loop().pipes().take(nullptr)); });
}

TEST_F(PipeChunkTest, AChunkMayBeDestroyedOnAnyThread) {
  const std::size_t before = budget_.inUse();
  auto inPipe = onLoop([this] { return makeChunk("elsewhere"); });
  auto inBuffer = onLoop([this] {
    return std::make_unique<BufferChunk>(loop().buffers(), loop().buffers().take(), 10,
                                         MemoryBudget::Lease());
  });
  EXPECT_EQ(text(inPipe->bytes()), "elsewhere");
  inPipe.reset();
  inBuffer.reset();
  EXPECT_EQ(budget_.inUse(), before);
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
