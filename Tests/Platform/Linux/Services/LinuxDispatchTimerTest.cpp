#include "Platform/Linux/Services/LinuxDispatchTimer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <latch>
#include <memory>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "Platform/Linux/Services/LinuxDispatchQueue.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Keeps a serial queue busy until it is released, and then does a last thing on it.
class BusyQueue {
 public:
  explicit BusyQueue(
      platform::DispatchQueue& queue, std::function<void()> last = [] {}) {
    queue.async([this, last = std::move(last)] {
      isBusy_.count_down();
      released_.wait();
      last();
    });
    isBusy_.wait();
  }

  void release() { released_.count_down(); }

 private:
  std::latch isBusy_{1};
  std::latch released_{1};
};

class LinuxDispatchTimerTest : public ::testing::Test {
 protected:
  // The timer is ended while its handler is waiting for the queue.
  void endWithAWaitingHandler(std::function<void()> end) {
    timer_->setEventHandler([this] { ++fired_; });
    BusyQueue busy(*queue_, std::move(end));
    timer_->schedule(0ns, std::nullopt, 0ns);
    timer_->resume();
    busy.release();
    waitFor(10ms);
    EXPECT_EQ(fired_, 0);
  }

  std::shared_ptr<platform::DispatchTimer> make() {
    return std::make_shared<LinuxDispatchTimer>(service_, queue_);
  }

  // Returns when a timer set now for that delay has expired and all earlier handlers have run:
  // anything due by then has happened.
  void waitFor(std::chrono::nanoseconds delay) {
    std::promise<void> fired;
    const auto witness = make();
    witness->setEventHandler([&fired] { fired.set_value(); });
    witness->schedule(delay, std::nullopt, 0ns);
    witness->resume();
    fired.get_future().wait();
    finishHandlers();
  }

  // Handlers refer to local variables, which may be destroyed only after they have returned.
  void finishHandlers() {
    queue_->sync([] {});
  }

  TimerService service_;
  WorkerPool pool_;
  const std::shared_ptr<platform::DispatchQueue> queue_ = std::make_shared<LinuxDispatchQueue>(
      pool_, "com.ostravel.timers", platform::DispatchQueueKind::serial);
  std::shared_ptr<platform::DispatchTimer> timer_ = make();
  std::atomic<int> fired_ = 0;
};

TEST_F(LinuxDispatchTimerTest, FiresOnceAndNotTooEarly) {
  const auto start = Clock::now();
  std::promise<Clock::time_point> moment;
  timer_->setEventHandler([&] {
    moment.set_value(Clock::now());
    ++fired_;
  });
  timer_->schedule(30ms, std::nullopt, 0ns);
  timer_->resume();
  EXPECT_GE(moment.get_future().get() - start, 30ms);
  waitFor(60ms);
  EXPECT_EQ(fired_, 1);
}

TEST_F(LinuxDispatchTimerTest, ZeroAndNegativeDelaysFireAtOnceButNotInsideTheCall) {
  for (const auto delay : {0ms, -5000ms}) {
    std::latch done(1);
    std::thread::id thread;
    timer_->setEventHandler([&] {
      thread = std::this_thread::get_id();
      done.count_down();
    });
    timer_->schedule(delay, std::nullopt, 0ns);
    timer_->resume();
    done.wait();
    finishHandlers();
    EXPECT_NE(thread, std::this_thread::get_id());
  }
}

TEST_F(LinuxDispatchTimerTest, RepeatsWithItsIntervalAndNeverEarly) {
  constexpr int kTimes = 20;
  const auto start = Clock::now();
  std::vector<Clock::time_point> moments;
  std::latch done(kTimes);
  timer_->setEventHandler([&] {
    if (moments.size() < kTimes) {
      moments.push_back(Clock::now());
      done.count_down();
    }
  });
  timer_->schedule(5ms, 5ms, 0ns);
  timer_->resume();
  done.wait();
  timer_->cancel();
  finishHandlers();
  for (int i = 0; i < kTimes; ++i) {
    EXPECT_GE(moments[static_cast<std::size_t>(i)] - start, (i + 1) * 5ms);
  }
}

TEST_F(LinuxDispatchTimerTest, ALateExpirationDoesNotDelayTheNext) {
  // Every expiration is late by nearly the leeway. If the delays added up, no two would be less
  // than 40 ms apart. A busy machine can delay some of them, but not all.
  constexpr int kTimes = 20;
  std::vector<Clock::time_point> moments;
  std::promise<void> done;
  timer_->setEventHandler([&] {
    moments.push_back(Clock::now());
    if (moments.size() == kTimes) {
      done.set_value();
    }
  });
  timer_->schedule(21ms, 21ms, 20ms);
  timer_->resume();
  done.get_future().wait();
  timer_->setEventHandler(nullptr);
  finishHandlers();
  std::chrono::nanoseconds shortest = 1h;
  for (std::size_t i = 1; i < kTimes; ++i) {
    shortest = std::min<std::chrono::nanoseconds>(shortest, moments[i] - moments[i - 1]);
  }
  EXPECT_LT(shortest, 30ms);
}

TEST_F(LinuxDispatchTimerTest, StartsSuspended) {
  timer_->setEventHandler([this] { ++fired_; });
  timer_->schedule(1ms, 1ms, 0ns);
  waitFor(20ms);
  EXPECT_EQ(fired_, 0);
}

TEST_F(LinuxDispatchTimerTest, ExpirationsBeforeResumeAreMerged) {
  timer_->setEventHandler([this] { ++fired_; });
  timer_->schedule(1ms, 1h, 0ns);
  waitFor(10ms);
  timer_->resume();
  waitFor(10ms);
  EXPECT_EQ(fired_, 1);
}

TEST_F(LinuxDispatchTimerTest, ExpirationsAreMergedWithAWaitingHandler) {
  timer_->setEventHandler([this] { ++fired_; });
  BusyQueue busy(*queue_);
  timer_->schedule(1ms, 1ms, 0ns);
  timer_->resume();
  // This queue is busy, so another one shows that time has passed.
  const auto other = std::make_shared<LinuxDispatchQueue>(pool_, "com.ostravel.other",
                                                          platform::DispatchQueueKind::serial);
  LinuxDispatchTimer witness(service_, other);
  std::promise<void> passed;
  witness.setEventHandler([&passed] { passed.set_value(); });
  witness.schedule(20ms, std::nullopt, 0ns);
  witness.resume();
  passed.get_future().wait();
  other->sync([] {});
  // Both were merged into the one waiting handler.
  int seen = 0;
  queue_->async([&] {
    seen = fired_;
    timer_->cancel();
  });
  busy.release();
  queue_->sync([] {});
  EXPECT_EQ(seen, 1);
}

TEST_F(LinuxDispatchTimerTest, AnExpirationThatHasNotStartedRunsTheNewHandler) {
  std::atomic<int> old = 0;
  BusyQueue busy(*queue_);
  timer_->setEventHandler([&old] { ++old; });
  timer_->schedule(0ns, std::nullopt, 0ns);
  timer_->resume();
  timer_->setEventHandler([this] { ++fired_; });
  busy.release();
  waitFor(10ms);
  EXPECT_EQ(old, 0);
  EXPECT_EQ(fired_, 1);
}

TEST_F(LinuxDispatchTimerTest, FiresWithoutAHandler) {
  timer_->schedule(0ns, std::nullopt, 0ns);
  timer_->resume();
  waitFor(5ms);
  timer_->setEventHandler([this] { ++fired_; });
  timer_->setEventHandler(nullptr);
  timer_->schedule(0ns, std::nullopt, 0ns);
  waitFor(5ms);
  EXPECT_EQ(fired_, 0);
}

TEST_F(LinuxDispatchTimerTest, CancelBeforeItFires) {
  timer_->setEventHandler([this] { ++fired_; });
  timer_->schedule(10ms, 1ms, 0ns);
  timer_->resume();
  timer_->cancel();
  finishHandlers();
  // On a busy machine it may have been late.
  const int before = fired_;
  waitFor(30ms);
  EXPECT_EQ(fired_, before);
}

TEST_F(LinuxDispatchTimerTest, CancelStopsAWaitingHandler) {
  endWithAWaitingHandler([this] { timer_->cancel(); });
}

TEST_F(LinuxDispatchTimerTest, CancelFromTheHandlerEndsTheRepetition) {
  timer_->setEventHandler([this] {
    ++fired_;
    timer_->cancel();
  });
  timer_->schedule(1ms, 1ms, 0ns);
  timer_->resume();
  waitFor(20ms);
  EXPECT_EQ(fired_, 1);
}

TEST_F(LinuxDispatchTimerTest, ACancelledTimerIsNotResumed) {
  timer_->setEventHandler([this] { ++fired_; });
  timer_->cancel();
  timer_->schedule(1ms, std::nullopt, 0ns);
  timer_->resume();
  waitFor(20ms);
  EXPECT_EQ(fired_, 0);
}

TEST_F(LinuxDispatchTimerTest, DestroyingItCancelsIt) {
  timer_->setEventHandler([this] { ++fired_; });
  timer_->schedule(5ms, 1ms, 0ns);
  timer_->resume();
  timer_.reset();
  finishHandlers();
  // On a busy machine it may have been late.
  const int before = fired_;
  waitFor(20ms);
  EXPECT_EQ(fired_, before);
}

TEST_F(LinuxDispatchTimerTest, DestroyingItStopsAWaitingHandler) {
  endWithAWaitingHandler([this] { timer_.reset(); });
}

TEST_F(LinuxDispatchTimerTest, TheHandlerMayDestroyTheTimer) {
  timer_->setEventHandler([this] {
    timer_.reset();
    ++fired_;
  });
  // The queue is busy, so that the timer outlives these calls.
  queue_->sync([this] {
    timer_->schedule(1ms, 1ms, 0ns);
    timer_->resume();
  });
  waitFor(20ms);
  EXPECT_EQ(fired_, 1);
}

TEST_F(LinuxDispatchTimerTest, TheHandlerMayHoldTheTimerAndBeReplacedInIt) {
  std::weak_ptr<platform::DispatchTimer> observer = timer_;
  timer_->setEventHandler([this, timer = timer_] {
    ++fired_;
    timer->setEventHandler(nullptr);
  });
  timer_->schedule(1ms, std::nullopt, 0ns);
  timer_->resume();
  timer_.reset();
  waitFor(20ms);
  EXPECT_EQ(fired_, 1);
  EXPECT_TRUE(observer.expired());
}

TEST_F(LinuxDispatchTimerTest, ReplacingTheHandlerThatHoldsTheLastReferenceIsSafe) {
  platform::DispatchTimer* const timer = timer_.get();
  timer->setEventHandler([last = std::move(timer_)] {});
  timer->setEventHandler(nullptr);
}

TEST_F(LinuxDispatchTimerTest, ASecondScheduleReplacesTheFirst) {
  timer_->setEventHandler([this] { ++fired_; });
  timer_->schedule(1ms, 1ms, 0ns);
  timer_->schedule(5ms, std::nullopt, 0ns);
  timer_->resume();
  waitFor(30ms);
  EXPECT_EQ(fired_, 1);
}

TEST_F(LinuxDispatchTimerTest, AReplacedScheduleDoesNotExpire) {
  timer_->setEventHandler([this] { ++fired_; });
  timer_->schedule(1h, std::nullopt, 0ns);
  timer_->resume();
  timer_->schedule(2h, std::nullopt, 0ns);
  waitFor(10ms);
  EXPECT_EQ(fired_, 0);
}

TEST_F(LinuxDispatchTimerTest, TheLongestDelayDoesNotOverflow) {
  timer_->setEventHandler([this] { ++fired_; });
  timer_->schedule(std::chrono::nanoseconds::max(), std::chrono::nanoseconds::max(),
                   std::chrono::nanoseconds::max());
  timer_->resume();
  waitFor(20ms);
  EXPECT_EQ(fired_, 0);
}

TEST_F(LinuxDispatchTimerTest, AnIntervalMustBePositive) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(timer_->schedule(0s, 0s, 0ns), "programming error");
}

TEST_F(LinuxDispatchTimerTest, LeewayDelaysButNeverAdvancesIt) {
  const auto start = Clock::now();
  std::promise<Clock::time_point> moment;
  timer_->setEventHandler([&] { moment.set_value(Clock::now()); });
  timer_->schedule(10ms, std::nullopt, 50ms);
  timer_->resume();
  EXPECT_GE(moment.get_future().get() - start, 10ms);
  finishHandlers();
}

TEST_F(LinuxDispatchTimerTest, TimersWithTheSameLeewayExpireTogether) {
  constexpr std::size_t kTimers = 10;
  constexpr auto kLeeway = 200ms;
  // None is already due when it is resumed, not even on a busy machine: that would expire at once.
  std::chrono::milliseconds delay = 300ms;
  std::vector<Clock::time_point> commonMoments(kTimers);
  std::vector<Clock::time_point> moments(kTimers);
  std::latch done(kTimers);
  std::vector<std::shared_ptr<platform::DispatchTimer>> timers;
  for (std::size_t i = 0; i < kTimers; ++i) {
    timers.push_back(make());
    timers.back()->setEventHandler([&moment = moments[i], &done] {
      moment = Clock::now();
      done.count_down();
    });
    delay += 1ms;
    const auto earliest = Clock::now() + delay;
    commonMoments[i] = earliest + (kLeeway - earliest.time_since_epoch() % kLeeway) % kLeeway;
    timers.back()->schedule(delay, std::nullopt, kLeeway);
    timers.back()->resume();
  }
  done.wait();
  finishHandlers();
  // Uncoalesced, most of them would expire before.
  for (std::size_t i = 0; i < kTimers; ++i) {
    EXPECT_GE(moments[i], commonMoments[i]) << i;
  }
}

TEST_F(LinuxDispatchTimerTest, TheHandlerRunsOnItsQueue) {
  int unprotected = 0;
  std::latch done(100);
  timer_->setEventHandler([&] {
    if (!done.try_wait()) {
      ++unprotected;
      done.count_down();
    }
  });
  timer_->schedule(0ns, 100us, 0ns);
  timer_->resume();
  while (!done.try_wait()) {
    queue_->sync([&unprotected] { ++unprotected; });
  }
  timer_->cancel();
  queue_->sync([&unprotected] { EXPECT_GE(unprotected, 100); });
}

TEST_F(LinuxDispatchTimerTest, NothingExpiresAfterTheServiceHasStopped) {
  timer_->setEventHandler([this] { ++fired_; });
  timer_->schedule(0ns, 10us, 0ns);
  timer_->resume();
  service_.stop();
  queue_->sync([] {});
  const int atStop = fired_;
  queue_->sync([] {});
  EXPECT_EQ(fired_, atStop);
}

// All operations from many threads while the timer expires, for ThreadSanitizer.
TEST_F(LinuxDispatchTimerTest, OperationsFromManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 300;
  for (int i = 0; i < 10; ++i) {
    auto timer = make();
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([this, timer, thread] {
        for (int round = 0; round < kRounds; ++round) {
          timer->setEventHandler([this] { ++fired_; });
          timer->schedule(0ns, 50us, thread % 2 == 0 ? 0ns : 20us);
          timer->resume();
        }
        timer->cancel();
      });
    }
    timer.reset();
    threads.clear();
  }
  queue_->sync([] {});
  const int atEnd = fired_;
  waitFor(5ms);
  EXPECT_EQ(fired_, atEnd);
}

TEST_F(LinuxDispatchTimerTest, ThousandsOfTimersFireOnceEach) {
  constexpr int kTimers = 2000;
  std::latch done(kTimers);
  std::vector<std::shared_ptr<platform::DispatchTimer>> timers;
  for (int i = 0; i < kTimers; ++i) {
    timers.push_back(make());
    timers.back()->setEventHandler([&] {
      ++fired_;
      done.count_down();
    });
    timers.back()->schedule(std::chrono::microseconds(i * 7 % 5000), std::nullopt, 1ms);
    timers.back()->resume();
  }
  done.wait();
  waitFor(10ms);
  EXPECT_EQ(fired_, kTimers);
}

}  // namespace
}  // namespace ostravel::linuxplatform
