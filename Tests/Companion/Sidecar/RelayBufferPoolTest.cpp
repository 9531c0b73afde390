#include "Companion/Sidecar/RelayBufferPool.h"

#include <gtest/gtest.h>

namespace ostravel::companion {
namespace {

TEST(RelayBufferPoolTest, LendsAReturnedBufferAgain) {
  RelayBufferPool pool;
  RelayBufferPool::Buffer buffer = pool.acquire();
  const void* const address = buffer.get();
  pool.release(std::move(buffer));
  EXPECT_EQ(pool.acquire().get(), address);
}

TEST(RelayBufferPoolTest, LendsEachBufferOnce) {
  RelayBufferPool pool;
  pool.release(pool.acquire());
  const RelayBufferPool::Buffer first = pool.acquire();
  const RelayBufferPool::Buffer second = pool.acquire();
  EXPECT_NE(first, second);
}

TEST(RelayBufferPoolTest, AcceptsTheReturnOfNoBuffer) {
  RelayBufferPool pool;
  pool.release(nullptr);
  EXPECT_NE(pool.acquire(), nullptr);
}

}  // namespace
}  // namespace ostravel::companion
