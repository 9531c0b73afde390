#import "Platform/macOS/Dispatch/SystemDispatchTimer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#import "Platform/macOS/MacPlatform.h"
#include "Tests/StandInMac/WorkerPool.h"

namespace ostravel::macos::test {
namespace {

using namespace std::chrono_literals;

class SystemDispatchTimerTest : public ::testing::Test {
 protected:
  MacPlatform platform_;
};

// The stand-in ends the process, as Dispatch does, when a source that was never active is released.
TEST_F(SystemDispatchTimerTest, ATimerThatWasNeverResumedMayBeDestroyed) {
  const auto queue = platform_.makeQueue("timer", platform::DispatchQueueKind::serial);
  bool fired = false;
  for (const bool isCancelled : {false, true}) {
    const auto timer = platform_.makeTimer(queue);
    timer->schedule(0ns, std::nullopt, 0ns);
    timer->setEventHandler([&fired] { fired = true; });
    if (isCancelled) {
      timer->cancel();
    }
  }
  standin::settleWorkers();
  queue->sync([] {});
  EXPECT_FALSE(fired);
}

TEST_F(SystemDispatchTimerTest, ResumingTwiceIsHarmless) {
  const auto queue = platform_.makeQueue("timer", platform::DispatchQueueKind::serial);
  const auto timer = platform_.makeTimer(queue);
  timer->resume();
  timer->resume();
  timer->cancel();
  timer->resume();
  SUCCEED();
}

TEST_F(SystemDispatchTimerTest, ATimerReleasesItsHandler) {
  const auto queue = platform_.makeQueue("timer", platform::DispatchQueueKind::serial);
  auto held = std::make_shared<int>();
  const std::weak_ptr<int> weakHeld = held;
  {
    const auto timer = platform_.makeTimer(queue);
    timer->setEventHandler([held = std::move(held)] {});
  }
  EXPECT_TRUE(weakHeld.expired());
}

}  // namespace
}  // namespace ostravel::macos::test
