#include "Platform/Simulation/Schedule/SimulatedTimer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <vector>

#include "Platform/Simulation/Simulation.h"

namespace ostravel::simulation {
namespace {

using namespace std::chrono_literals;
using Moments = std::vector<std::chrono::nanoseconds>;

class SimulatedTimerTest : public testing::Test {
 protected:
  std::function<void()> noting() {
    return [this] { fired_.push_back(simulation_.now()); };
  }

  Simulation simulation_;
  const std::shared_ptr<platform::DispatchQueue> queue_ =
      simulation_.makeQueue("timers", platform::DispatchQueueKind::serial);
  std::shared_ptr<platform::DispatchTimer> timer_ = simulation_.makeTimer(queue_);
  Moments fired_;
};

TEST_F(SimulatedTimerTest, FiresOnceAtItsMomentAndNotATickEarlier) {
  timer_->setEventHandler(noting());
  timer_->schedule(5s, std::nullopt, 0ns);
  timer_->resume();
  simulation_.advance(5s - 1ns);
  EXPECT_TRUE(fired_.empty());
  simulation_.advance(1ns);
  EXPECT_EQ(fired_, (Moments{5s}));
  simulation_.advance(1h);
  EXPECT_EQ(fired_.size(), 1U);
}

TEST_F(SimulatedTimerTest, ZeroDelayFiresWithoutTimePassing) {
  timer_->setEventHandler(noting());
  timer_->schedule(0s, std::nullopt, 0ns);
  timer_->resume();
  EXPECT_TRUE(fired_.empty());
  simulation_.run();
  EXPECT_EQ(fired_, (Moments{0s}));
}

TEST_F(SimulatedTimerTest, NegativeDelayIsZero) {
  timer_->setEventHandler(noting());
  timer_->schedule(-5s, std::nullopt, 0ns);
  timer_->resume();
  simulation_.run();
  EXPECT_EQ(fired_, (Moments{0s}));
}

TEST_F(SimulatedTimerTest, RepeatsWithItsInterval) {
  timer_->setEventHandler(noting());
  timer_->schedule(0s, 1s, 0ns);
  timer_->resume();
  simulation_.advance(3s);
  EXPECT_EQ(fired_, (Moments{0s, 1s, 2s, 3s}));
}

TEST_F(SimulatedTimerTest, StartsSuspended) {
  timer_->setEventHandler(noting());
  timer_->schedule(1s, std::nullopt, 0ns);
  simulation_.advance(10s);
  EXPECT_TRUE(fired_.empty());
}

TEST_F(SimulatedTimerTest, ExpirationsBeforeResumeAreMerged) {
  timer_->setEventHandler(noting());
  timer_->schedule(1s, 1s, 0ns);
  simulation_.advance(3500ms);
  timer_->resume();
  simulation_.advance(1s);
  EXPECT_EQ(fired_, (Moments{3500ms, 4s}));
}

TEST_F(SimulatedTimerTest, ExpirationsAreMergedWithAWaitingHandler) {
  timer_->setEventHandler(noting());
  timer_->schedule(0s, std::nullopt, 0ns);
  timer_->resume();
  // Expires again in the same moment, before the handler of the first expiration has started.
  simulation_.post([this] { timer_->schedule(0s, std::nullopt, 0ns); });
  simulation_.run();
  EXPECT_EQ(fired_, (Moments{0s}));
}

TEST_F(SimulatedTimerTest, ExpirationsDuringASlowHandlerAreMerged) {
  timer_->setEventHandler([this] {
    fired_.push_back(simulation_.now());
    if (fired_.size() == 1) {
      simulation_.spend(3500ms);
    }
  });
  timer_->schedule(1s, 1s, 0ns);
  timer_->resume();
  simulation_.advance(6s);
  EXPECT_EQ(fired_, (Moments{1s, 4500ms, 5s, 6s}));
}

TEST_F(SimulatedTimerTest, TheNewHandlerRunsInsteadOfTheOldOne) {
  int old = 0;
  timer_->setEventHandler([&old] { ++old; });
  timer_->schedule(1s, std::nullopt, 0ns);
  timer_->resume();
  simulation_.advance(500ms);
  timer_->setEventHandler(noting());
  simulation_.advance(1s);
  EXPECT_EQ(old, 0);
  EXPECT_EQ(fired_, (Moments{1s}));
}

TEST_F(SimulatedTimerTest, AnExpirationThatHasNotStartedRunsTheNewHandler) {
  int old = 0;
  timer_->setEventHandler([&old] { ++old; });
  timer_->schedule(0s, std::nullopt, 0ns);
  timer_->resume();
  // In the same moment, before the timer's handler.
  queue_->async([this] { timer_->setEventHandler(noting()); });
  simulation_.run();
  EXPECT_EQ(old, 0);
  EXPECT_EQ(fired_.size(), 1U);
}

TEST_F(SimulatedTimerTest, CancelBeforeItFires) {
  timer_->setEventHandler(noting());
  timer_->schedule(1s, 1s, 0ns);
  timer_->resume();
  timer_->cancel();
  simulation_.advance(5s);
  EXPECT_TRUE(fired_.empty());
}

TEST_F(SimulatedTimerTest, CancelStopsAHandlerThatIsWaiting) {
  timer_->setEventHandler(noting());
  timer_->schedule(0s, std::nullopt, 0ns);
  timer_->resume();
  simulation_.post([this] { timer_->cancel(); });
  simulation_.run();
  EXPECT_TRUE(fired_.empty());
}

TEST_F(SimulatedTimerTest, CancelFromTheHandlerEndsTheRepetition) {
  timer_->setEventHandler([this] {
    fired_.push_back(simulation_.now());
    timer_->cancel();
  });
  timer_->schedule(1s, 1s, 0ns);
  timer_->resume();
  simulation_.advance(5s);
  EXPECT_EQ(fired_, (Moments{1s}));
}

TEST_F(SimulatedTimerTest, ACancelledTimerIsNotResumed) {
  timer_->setEventHandler(noting());
  timer_->cancel();
  timer_->schedule(1s, std::nullopt, 0ns);
  timer_->resume();
  simulation_.advance(5s);
  EXPECT_TRUE(fired_.empty());
}

TEST_F(SimulatedTimerTest, DestroyingItCancelsIt) {
  timer_->setEventHandler(noting());
  timer_->schedule(1s, std::nullopt, 0ns);
  timer_->resume();
  timer_.reset();
  simulation_.advance(5s);
  EXPECT_TRUE(fired_.empty());
}

TEST_F(SimulatedTimerTest, TheHandlerMayDestroyTheTimer) {
  timer_->setEventHandler([this] {
    timer_.reset();
    fired_.push_back(simulation_.now());
  });
  timer_->schedule(1s, 1s, 0ns);
  timer_->resume();
  simulation_.advance(5s);
  EXPECT_EQ(fired_, (Moments{1s}));
}

TEST_F(SimulatedTimerTest, TheHandlerMayReplaceItself) {
  int second = 0;
  timer_->setEventHandler([this, &second] {
    fired_.push_back(simulation_.now());
    timer_->setEventHandler([&second] { ++second; });
  });
  timer_->schedule(1s, 1s, 0ns);
  timer_->resume();
  simulation_.advance(3s);
  EXPECT_EQ(fired_, (Moments{1s}));
  EXPECT_EQ(second, 2);
}

TEST_F(SimulatedTimerTest, ASecondScheduleReplacesTheFirst) {
  timer_->setEventHandler(noting());
  timer_->schedule(1s, 1s, 0ns);
  timer_->resume();
  timer_->schedule(3s, std::nullopt, 0ns);
  simulation_.advance(10s);
  EXPECT_EQ(fired_, (Moments{3s}));
}

TEST_F(SimulatedTimerTest, TheLongestDelayDoesNotOverflow) {
  simulation_.advance(1s);
  timer_->setEventHandler(noting());
  timer_->schedule(std::chrono::nanoseconds::max(), std::nullopt, std::chrono::nanoseconds::max());
  timer_->resume();
  simulation_.advance(24h);
  EXPECT_TRUE(fired_.empty());
}

TEST_F(SimulatedTimerTest, AnIntervalMustBePositive) {
  EXPECT_THROW(timer_->schedule(0s, 0s, 0ns), std::logic_error);
}

TEST_F(SimulatedTimerTest, TheHandlerRunsOnItsQueue) {
  bool deadlocks = false;
  timer_->setEventHandler([&] {
    try {
      queue_->sync([] {});
    } catch (const std::logic_error&) {
      deadlocks = true;
    }
  });
  timer_->schedule(1s, std::nullopt, 0ns);
  timer_->resume();
  simulation_.advance(1s);
  EXPECT_TRUE(deadlocks);
}

TEST(SeededSimulatedTimerTest, LatenessIsDrawnWithinTheLeewayAndDoesNotAddUp) {
  std::set<std::chrono::nanoseconds> lateness;
  for (std::uint64_t seed = 0; seed < 20; ++seed) {
    Simulation simulation({.order = RunOrder::seeded, .seed = seed, .faults = {}});
    const auto timer =
        simulation.makeTimer(simulation.makeQueue("q", platform::DispatchQueueKind::serial));
    Moments fired;
    timer->setEventHandler([&] { fired.push_back(simulation.now()); });
    timer->schedule(1s, 1s, 100ms);
    timer->resume();
    simulation.advance(10500ms);
    ASSERT_EQ(fired.size(), 10U);
    for (int i = 0; i < 10; ++i) {
      const auto late = fired[static_cast<std::size_t>(i)] - std::chrono::seconds(i + 1);
      ASSERT_GE(late, 0ns);
      ASSERT_LE(late, 100ms);
      lateness.insert(late);
    }
  }
  EXPECT_GT(lateness.size(), 100U);
}

}  // namespace
}  // namespace ostravel::simulation
