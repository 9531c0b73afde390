#include "Platform/Shared/POSIXSocketCalls.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <vector>

namespace ostravel::platform {
namespace {

using namespace std::chrono_literals;

// Local sockets only: what needs a network is tested with the platforms.
class POSIXSocketCallsTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair_.data()), 0); }
  void TearDown() override {
    for (const int descriptor : pair_) {
      ::close(descriptor);
    }
  }

  // Fills one end until it would block.
  void fill() {
    const std::vector<std::byte> chunk(65536);
    while (sockets_.write(pair_[0], chunk).value > 0) {
    }
  }

  POSIXSocketCalls sockets_;
  std::array<int, 2> pair_{};
};

TEST_F(POSIXSocketCallsTest, SocketsAreNotInherited) {
  const auto opened = sockets_.socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(opened.value, 0);
  const int descriptor = static_cast<int>(opened.value);
  EXPECT_NE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
  sockets_.close(descriptor);
  EXPECT_EQ(::fcntl(descriptor, F_GETFD), -1);
}

TEST_F(POSIXSocketCallsTest, ReportsErrnoOfAFailedCall) {
  const auto opened = sockets_.socket(-1, SOCK_STREAM, 0);
  EXPECT_EQ(opened.value, -1);
  EXPECT_EQ(opened.error, EAFNOSUPPORT);
  EXPECT_EQ(sockets_.statusFlags(-1).error, EBADF);
  EXPECT_EQ(sockets_.setStatusFlags(-1, 0).error, EBADF);
  EXPECT_EQ(sockets_.pendingError(-1).value, -1);
  EXPECT_EQ(sockets_.pendingError(-1).error, EBADF);
  EXPECT_EQ(sockets_.write(-1, {}).error, EBADF);
}

TEST_F(POSIXSocketCallsTest, RefusesAnAddressLongerThanAnySystemHas) {
  const std::vector<std::byte> address(sizeof(sockaddr_storage) + 1);
  const auto connected = sockets_.connect(pair_[0], address);
  EXPECT_EQ(connected.value, -1);
  EXPECT_EQ(connected.error, EINVAL);
}

TEST_F(POSIXSocketCallsTest, StatusFlagsAreReadAndSet) {
  const auto flags = static_cast<int>(sockets_.statusFlags(pair_[0]).value);
  EXPECT_EQ(flags & O_NONBLOCK, 0);
  EXPECT_EQ(sockets_.setStatusFlags(pair_[0], flags | O_NONBLOCK).value, 0);
  EXPECT_NE(sockets_.statusFlags(pair_[0]).value & O_NONBLOCK, 0);
}

TEST_F(POSIXSocketCallsTest, WritesOnceAndReturnsHowMuch) {
  sockets_.setStatusFlags(pair_[0], O_NONBLOCK);
  fill();
  const std::vector<std::byte> chunk(1);
  const auto written = sockets_.write(pair_[0], chunk);
  EXPECT_EQ(written.value, -1);
  EXPECT_EQ(written.error, EAGAIN);
}

TEST_F(POSIXSocketCallsTest, AWriteOfNothingReportsErrnoAsItIs) {
  errno = EBUSY;
  const auto written = sockets_.write(pair_[0], {});
  EXPECT_EQ(written.value, 0);
  EXPECT_EQ(written.error, EBUSY);
}

TEST_F(POSIXSocketCallsTest, PollReportsWhetherASocketIsWritable) {
  EXPECT_EQ(sockets_.pollWritable(pair_[0], 0ms).value, 1);
  sockets_.setStatusFlags(pair_[0], O_NONBLOCK);
  fill();
  EXPECT_EQ(sockets_.pollWritable(pair_[0], 0ms).value, 0);
}

TEST_F(POSIXSocketCallsTest, PollDoesNotWaitForeverForANegativeTime) {
  sockets_.setStatusFlags(pair_[0], O_NONBLOCK);
  fill();
  EXPECT_EQ(sockets_.pollWritable(pair_[0], -1ms).value, 0);
}

TEST_F(POSIXSocketCallsTest, HasNoPendingErrorAtFirst) {
  EXPECT_EQ(sockets_.pendingError(pair_[0]).value, 0);
}

}  // namespace
}  // namespace ostravel::platform
