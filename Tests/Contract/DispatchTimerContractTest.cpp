#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "Platform/Interface/DispatchQueue.h"
#include "Platform/Interface/DispatchTimer.h"
#include "Tests/Contract/ContractTest.h"
#include "Tests/Contract/EventList.h"
#include "Tests/Contract/OverlapCheck.h"

namespace ostravel::contract {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

class DispatchTimerContractTest : public ContractTest {
 protected:
  // No handler may run once the test's variables are destroyed.
  void TearDown() override {
    if (timer_) {
      timer_->cancel();
    }
    queue_->sync([] {});
  }

  std::function<void()> noting() {
    return [this] { fired_.add(environment_->now()); };
  }
  void start(nanoseconds delay, std::optional<nanoseconds> interval = std::nullopt) {
    timer_->schedule(delay, interval, 0ns);
    timer_->resume();
  }
  // Whether the timer fires before another one on the same queue that is armed later, with this
  // delay and no leeway. A busy machine delays both and keeps their order.
  bool firesBefore(nanoseconds delay) {
    std::atomic<bool> reached = false;
    std::atomic<bool> wasFirst = false;
    const auto marker = platform().makeTimer(queue_);
    marker->setEventHandler([&] {
      wasFirst = fired_.size() > 0;
      reached = true;
    });
    marker->schedule(delay, std::nullopt, 0ns);
    marker->resume();
    EXPECT_TRUE(waitUntil([&] { return reached.load(); }));
    queue_->sync([] {});
    return wasFirst;
  }
  // Waits until a timer that was armed later and for longer than this has fired on the same queue.
  void waitWellBeyond(nanoseconds delay) {
    std::atomic<bool> reached = false;
    const auto marker = platform().makeTimer(queue_);
    marker->setEventHandler([&reached] { reached = true; });
    marker->schedule(delay * 3, std::nullopt, 0ns);
    marker->resume();
    EXPECT_TRUE(waitUntil([&] { return reached.load(); }));
    queue_->sync([] {});
  }

  const std::shared_ptr<platform::DispatchQueue> queue_ =
      platform().makeQueue("timers", platform::DispatchQueueKind::serial);
  std::shared_ptr<platform::DispatchTimer> timer_ = platform().makeTimer(queue_);
  EventList<nanoseconds> fired_;
};

TEST_P(DispatchTimerContractTest, FiresOnceAndNotBeforeItsTime) {
  timer_->setEventHandler(noting());
  const auto start = environment_->now();
  this->start(20ms);
  ASSERT_TRUE(waitUntil([&] { return fired_.size() == 1; }));
  EXPECT_GE(fired_.all()[0] - start, 20ms);
  waitWellBeyond(20ms);
  EXPECT_EQ(fired_.size(), 1U);
}

TEST_P(DispatchTimerContractTest, ZeroDelayFiresAtOnceButNotInsideTheCall) {
  std::atomic<bool> insideCall = true;
  std::atomic<bool> ranInside = false;
  queue_->sync([&] {
    timer_->setEventHandler([&] {
      ranInside = insideCall.load();
      fired_.add(environment_->now());
    });
    start(0ms);
    insideCall = false;
  });
  ASSERT_TRUE(waitUntil([&] { return fired_.size() == 1; }));
  EXPECT_FALSE(ranInside);
}

TEST_P(DispatchTimerContractTest, RepeatsNotFasterThanItsInterval) {
  timer_->setEventHandler(noting());
  const auto start = environment_->now();
  this->start(5ms, 10ms);
  ASSERT_TRUE(waitUntil([&] { return fired_.size() >= 4; }));
  const auto fired = fired_.all();
  for (int i = 0; i < 4; ++i) {
    EXPECT_GE(fired[static_cast<std::size_t>(i)] - start, 5ms + i * 10ms) << i;
  }
}

TEST_P(DispatchTimerContractTest, FirstExpirationMayBeAtOnceAndOthersLater) {
  timer_->setEventHandler(noting());
  const auto start = environment_->now();
  this->start(0ms, 15ms);
  ASSERT_TRUE(waitUntil([&] { return fired_.size() >= 2; }));
  EXPECT_GE(fired_.all()[1] - start, 15ms);
}

TEST_P(DispatchTimerContractTest, StartsSuspended) {
  timer_->setEventHandler(noting());
  timer_->schedule(1ms, std::nullopt, 0ns);
  waitWellBeyond(5ms);
  EXPECT_EQ(fired_.size(), 0U);
  timer_->resume();
  EXPECT_TRUE(waitUntil([&] { return fired_.size() == 1; }));
}

TEST_P(DispatchTimerContractTest, LeewayMakesItLateAtMostByItself) {
  timer_->setEventHandler(noting());
  const auto start = environment_->now();
  timer_->schedule(10ms, std::nullopt, 50ms);
  timer_->resume();
  EXPECT_TRUE(firesBefore(70ms));
  ASSERT_EQ(fired_.size(), 1U);
  EXPECT_GE(fired_.all()[0] - start, 10ms);
}

TEST_P(DispatchTimerContractTest, LeewayDoesNotDelayWhatIsDueAtOnce) {
  timer_->setEventHandler(noting());
  timer_->schedule(0ms, 10s, 5s);
  timer_->resume();
  EXPECT_TRUE(firesBefore(50ms));
}

TEST_P(DispatchTimerContractTest, TheNewHandlerRunsInsteadOfTheOldOne) {
  std::atomic<int> old = 0;
  timer_->setEventHandler([&old] { ++old; });
  // The queue is busy, so that it cannot fire in between.
  queue_->sync([&] {
    start(20ms);
    timer_->setEventHandler(noting());
  });
  ASSERT_TRUE(waitUntil([&] { return fired_.size() == 1; }));
  EXPECT_EQ(old, 0);
}

TEST_P(DispatchTimerContractTest, AReplacedHandlerIsReleased) {
  auto held = std::make_shared<int>(0);
  const std::weak_ptr<int> weakHeld = held;
  timer_->setEventHandler([held = std::move(held)] {});
  timer_->setEventHandler([] {});
  EXPECT_TRUE(weakHeld.expired());
}

TEST_P(DispatchTimerContractTest, AnExpirationThatHasNotStartedRunsTheNewHandler) {
  std::atomic<int> old = 0;
  timer_->setEventHandler([&old] { ++old; });
  // The queue is busy when the timer expires.
  queue_->sync([&] {
    start(1ms);
    environment_->spend(20ms);
    timer_->setEventHandler(noting());
  });
  ASSERT_TRUE(waitUntil([&] { return fired_.size() == 1; }));
  EXPECT_EQ(old, 0);
}

TEST_P(DispatchTimerContractTest, CancelledBeforeItsTimeItNeverFires) {
  timer_->setEventHandler(noting());
  start(5ms, 5ms);
  queue_->sync([&] { timer_->cancel(); });
  const auto already = fired_.size();
  waitWellBeyond(10ms);
  EXPECT_EQ(fired_.size(), already);
}

TEST_P(DispatchTimerContractTest, CancelStopsAHandlerThatHasNotStarted) {
  timer_->setEventHandler(noting());
  queue_->sync([&] {
    start(1ms);
    environment_->spend(20ms);
    timer_->cancel();
  });
  waitWellBeyond(5ms);
  EXPECT_EQ(fired_.size(), 0U);
}

TEST_P(DispatchTimerContractTest, CancelFromTheHandlerEndsTheRepetition) {
  timer_->setEventHandler([this] {
    timer_->cancel();
    fired_.add(environment_->now());
  });
  start(1ms, 1ms);
  ASSERT_TRUE(waitUntil([&] { return fired_.size() == 1; }));
  waitWellBeyond(10ms);
  EXPECT_EQ(fired_.size(), 1U);
}

TEST_P(DispatchTimerContractTest, CancelTwiceAndResumeAfterwardsHaveNoEffect) {
  timer_->setEventHandler(noting());
  timer_->cancel();
  timer_->cancel();
  start(1ms, 1ms);
  waitWellBeyond(5ms);
  EXPECT_EQ(fired_.size(), 0U);
}

TEST_P(DispatchTimerContractTest, DestroyingItCancelsIt) {
  timer_->setEventHandler(noting());
  start(5ms, 5ms);
  queue_->sync([&] { timer_.reset(); });
  const auto already = fired_.size();
  waitWellBeyond(10ms);
  EXPECT_EQ(fired_.size(), already);
}

TEST_P(DispatchTimerContractTest, DestroyingItReleasesTheHandler) {
  auto held = std::make_shared<int>(0);
  const std::weak_ptr<int> weakHeld = held;
  timer_->setEventHandler([held = std::move(held)] {});
  start(1h);
  timer_.reset();
  EXPECT_TRUE(waitUntil([&] { return weakHeld.expired(); }));
}

TEST_P(DispatchTimerContractTest, TheHandlerMayDestroyTheTimer) {
  auto timer = platform().makeTimer(queue_);
  auto& sameTimer = *timer;
  sameTimer.setEventHandler([this, timer = std::move(timer)]() mutable {
    fired_.add(environment_->now());
    timer->setEventHandler([] {});
  });
  // The queue is busy, so that the timer outlives these calls.
  queue_->sync([&] {
    sameTimer.schedule(1ms, std::nullopt, 0ns);
    sameTimer.resume();
  });
  EXPECT_TRUE(waitUntil([&] { return fired_.size() == 1; }));
}

TEST_P(DispatchTimerContractTest, TheHandlerMayReplaceItself) {
  std::atomic<int> second = 0;
  timer_->setEventHandler([&] {
    fired_.add(environment_->now());
    timer_->setEventHandler([&second] { ++second; });
  });
  start(1ms, 5ms);
  ASSERT_TRUE(waitUntil([&] { return second >= 2; }));
  EXPECT_EQ(fired_.size(), 1U);
  timer_->cancel();
  queue_->sync([] {});
}

TEST_P(DispatchTimerContractTest, ExpirationsAreMergedWhileTheHandlerIsSlow) {
  timer_->setEventHandler([this] {
    fired_.add(environment_->now());
    if (fired_.size() == 1) {
      environment_->spend(200ms);
    }
  });
  const auto start = environment_->now();
  this->start(20ms, 20ms);
  // At 20, then merged at 220. The third may come at once, if the expiration at 220 was noticed
  // only after the second had begun. The fourth belongs to the next one; unmerged it would be at
  // 220.
  ASSERT_TRUE(waitUntil([&] { return fired_.size() >= 4; }));
  EXPECT_GE(fired_.all()[1] - start, 220ms);
  EXPECT_GE(fired_.all()[3] - start, 240ms);
}

TEST_P(DispatchTimerContractTest, TheHandlerRunsAsAnItemOfItsQueue) {
  OverlapCheck overlap;
  std::atomic<int> fired = 0;
  std::atomic<int> items = 0;
  timer_->setEventHandler([&] {
    const OverlapCheck::Scope scope(overlap);
    ++fired;
  });
  const auto otherQueue = platform().makeQueue("other", platform::DispatchQueueKind::serial);
  const auto otherTimer = platform().makeTimer(otherQueue);
  otherTimer->setEventHandler([&] {
    queue_->async([&] {
      const OverlapCheck::Scope scope(overlap);
      ++items;
    });
  });
  otherTimer->schedule(0ms, 1ms, 0ns);
  otherTimer->resume();
  start(0ms, 1ms);
  ASSERT_TRUE(waitUntil([&] { return fired >= 20 && items >= 20; }));
  otherTimer->cancel();
  otherQueue->sync([] {});
  timer_->cancel();
  queue_->sync([] {});
  EXPECT_FALSE(overlap.overlapped());
}

TEST_P(DispatchTimerContractTest, ManyTimersFireOnceEach) {
  constexpr int kTimers = 300;
  std::atomic<int> fired = 0;
  std::vector<std::shared_ptr<platform::DispatchTimer>> timers;
  for (int i = 0; i < kTimers; ++i) {
    timers.push_back(
        platform().makeTimer(platform().makeQueue("its own", platform::DispatchQueueKind::serial)));
    timers.back()->setEventHandler([&fired] { ++fired; });
    timers.back()->schedule(std::chrono::milliseconds(i % 20), std::nullopt, 0ns);
    timers.back()->resume();
  }
  EXPECT_TRUE(waitUntil([&] { return fired == kTimers; }));
  waitWellBeyond(20ms);
  EXPECT_EQ(fired, kTimers);
}

TEST_P(DispatchTimerContractTest, AnIntervalMustBePositive) {
  expectProgrammingError([&] { timer_->schedule(0ms, 0ms, 0ms); });
}

TEST_P(DispatchTimerContractTest, TheLongestDelayIsNeverOver) {
  timer_->setEventHandler(noting());
  start(nanoseconds::max());
  waitWellBeyond(5ms);
  EXPECT_EQ(fired_.size(), 0U);
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Contract, DispatchTimerContractTest,
                         ::testing::ValuesIn(contractPlatforms()), platformName);

}  // namespace ostravel::contract
