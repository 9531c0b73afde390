#include "Platform/Linux/Relay/LoopTimers.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

#include "Platform/Linux/Relay/LoopTimer.h"

namespace ostravel::linuxplatform::test {
namespace {

using namespace std::chrono_literals;

class LoopTimersTest : public ::testing::Test {
 protected:
  LoopTimers timers_;
  const LoopTimers::Clock::time_point now_ = LoopTimers::Clock::now();
  std::vector<int> order_;
};

TEST_F(LoopTimersTest, RunInTheOrderOfTheirTimes) {
  LoopTimer late(timers_);
  LoopTimer early(timers_);
  LoopTimer same(timers_);
  late.start(now_ + 2s, [this] { order_.push_back(3); });
  early.start(now_ + 1s, [this] { order_.push_back(1); });
  same.start(now_ + 1s, [this] { order_.push_back(2); });
  timers_.runDue(now_ + 1s - 1ns);
  EXPECT_TRUE(order_.empty());
  timers_.runDue(now_ + 1s);
  EXPECT_EQ(order_, (std::vector{1, 2}));
  timers_.runDue(now_ + 2s);
  EXPECT_EQ(order_, (std::vector{1, 2, 3}));
}

TEST_F(LoopTimersTest, TheWaitIsNotTooShort) {
  EXPECT_EQ(timers_.untilNext(now_), std::nullopt);
  LoopTimer timer(timers_);
  timer.start(now_ + 1ms + 1ns, [] {});
  EXPECT_EQ(timers_.untilNext(now_), 2ms);
  EXPECT_EQ(timers_.untilNext(now_ + 1s), 0ms);
}

TEST_F(LoopTimersTest, CancelledAndReplacedTimersDoNotRun) {
  const auto held = std::make_shared<int>(0);
  LoopTimer timer(timers_);
  timer.start(now_, [this, held] { order_.push_back(1); });
  timer.start(now_ + 1s, [this, held] { order_.push_back(2); });
  EXPECT_EQ(held.use_count(), 2);
  timers_.runDue(now_);
  EXPECT_TRUE(order_.empty());
  timer.cancel();
  EXPECT_EQ(held.use_count(), 1);
  timers_.runDue(now_ + 1s);
  EXPECT_TRUE(order_.empty());
}

TEST_F(LoopTimersTest, ATimerMayEndOrRestartItself) {
  auto ending = std::make_unique<LoopTimer>(timers_);
  ending->start(now_, [this, &ending] {
    ending.reset();
    order_.push_back(1);
  });
  LoopTimer restarting(timers_);
  restarting.start(now_, [this, &restarting] {
    restarting.start(now_ + 1s, [this] { order_.push_back(3); });
    order_.push_back(2);
  });
  timers_.runDue(now_);
  EXPECT_EQ(order_, (std::vector{1, 2}));
  timers_.runDue(now_ + 1s);
  EXPECT_EQ(order_, (std::vector{1, 2, 3}));
}

// A lingering socket is owned by what waits for its timer.
TEST_F(LoopTimersTest, DroppingThemDestroysTimersThatOwnEachOther) {
  const auto first = std::make_shared<LoopTimer>(timers_);
  auto second = std::make_shared<LoopTimer>(timers_);
  const std::weak_ptr<LoopTimer> weakSecond = second;
  second->start(now_ + 1s, [] {});
  first->start(now_, [second] {});
  second.reset();
  timers_.drop();
  EXPECT_TRUE(weakSecond.expired());
  EXPECT_EQ(timers_.untilNext(now_), std::nullopt);
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
