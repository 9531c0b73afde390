#include "Platform/Linux/Relay/BufferPool.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "Tests/Platform/Linux/Relay/Support/EventLoopTestPeer.h"
#include "Tests/Platform/Linux/Relay/Support/RelayTest.h"

namespace ostravel::linuxplatform::test {
namespace {

using BufferPoolTest = RelayTest;

TEST_F(BufferPoolTest, ReusesABuffer) {
  onLoop([this] {
    BufferPool& pool = loop().buffers();
    auto buffer = pool.take();
    const auto* const place = buffer.get();
    pool.release(std::move(buffer));
    EXPECT_EQ(EventLoopTestPeer::keptBuffers(loop()), 1U);
    EXPECT_EQ(pool.take().get(), place);
  });
}

TEST_F(BufferPoolTest, KeepsABoundedNumber) {
  onLoop([this] {
    BufferPool& pool = loop().buffers();
    std::vector<BufferPool::Buffer> buffers(limits::kKeptBuffers + 5);
    for (auto& buffer : buffers) {
      buffer = pool.take();
    }
    for (auto& buffer : buffers) {
      pool.release(std::move(buffer));
    }
    EXPECT_EQ(EventLoopTestPeer::keptBuffers(loop()), limits::kKeptBuffers);
  });
}

TEST_F(BufferPoolTest, ABufferMayBeReturnedOnAnyThread) {
  auto buffer = onLoop([this] { return loop().buffers().take(); });
  loop().buffers().release(std::move(buffer));
  EXPECT_EQ(onLoop([this] { return EventLoopTestPeer::keptBuffers(loop()); }), 0U);
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
