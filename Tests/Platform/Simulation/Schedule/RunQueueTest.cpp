#include "Platform/Simulation/Schedule/RunQueue.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace ostravel::simulation {
namespace {

using namespace std::chrono_literals;

class RunQueueTest : public testing::Test {
 protected:
  RunQueue::Work noting(const std::string& what) {
    return [this, what] { happened_.push_back(what); };
  }

  RunQueue queue_{RunOrder::fixed, SeededRandom(1, 0)};
  std::vector<std::string> happened_;
};

using Events = std::vector<std::string>;

TEST_F(RunQueueTest, RunsItemsInTheOrderOfTheirSubmission) {
  queue_.post(noting("a"));
  queue_.post(noting("b"));
  queue_.post(noting("c"));
  queue_.run();
  EXPECT_EQ(happened_, (Events{"a", "b", "c"}));
}

TEST_F(RunQueueTest, NothingRunsInsideThePost) {
  queue_.post(noting("a"));
  EXPECT_TRUE(happened_.empty());
}

TEST_F(RunQueueTest, RunsWhatItemsPost) {
  queue_.post([this] {
    happened_.push_back("a");
    queue_.post(noting("c"));
  });
  queue_.post(noting("b"));
  queue_.run();
  EXPECT_EQ(happened_, (Events{"a", "b", "c"}));
}

TEST_F(RunQueueTest, RunOneRunsOne) {
  queue_.post(noting("a"));
  queue_.post(noting("b"));
  EXPECT_TRUE(queue_.runOne());
  EXPECT_EQ(happened_, (Events{"a"}));
  EXPECT_TRUE(queue_.runOne());
  EXPECT_FALSE(queue_.runOne());
}

TEST_F(RunQueueTest, TimeDoesNotPassWhileSomethingRuns) {
  queue_.setAlarm(1s, noting("alarm"));
  queue_.post(noting("a"));
  queue_.run();
  EXPECT_EQ(queue_.now(), 0ns);
  EXPECT_EQ(happened_, (Events{"a"}));
}

TEST_F(RunQueueTest, AlarmsSoundInTheOrderOfTheirMoments) {
  queue_.setAlarm(2s, noting("second"));
  queue_.setAlarm(1s, noting("first"));
  queue_.setAlarm(2s, noting("second, set later"));
  queue_.advance(5s);
  EXPECT_EQ(happened_, (Events{"first", "second", "second, set later"}));
  EXPECT_EQ(queue_.now(), 5s);
}

TEST_F(RunQueueTest, AdvanceSoundsAnAlarmAtItsMomentAndNotATickEarlier) {
  std::chrono::nanoseconds sounded{0};
  queue_.setAlarm(1s, [&] { sounded = queue_.now(); });
  queue_.advance(1s - 1ns);
  EXPECT_EQ(sounded, 0ns);
  queue_.advance(1ns);
  EXPECT_EQ(sounded, 1s);
}

TEST_F(RunQueueTest, AdvanceRunsEverythingOfAMomentBeforeTheNext) {
  queue_.setAlarm(1s, [this] {
    queue_.post([this] {
      happened_.push_back("a");
      queue_.post(noting("b"));
    });
  });
  queue_.setAlarm(1s + 1ns, noting("c"));
  queue_.advance(2s);
  EXPECT_EQ(happened_, (Events{"a", "b", "c"}));
}

TEST_F(RunQueueTest, ACancelledAlarmDoesNotSound) {
  const auto alarm = queue_.setAlarm(1s, noting("alarm"));
  queue_.cancelAlarm(alarm);
  queue_.advance(2s);
  EXPECT_TRUE(happened_.empty());
}

TEST_F(RunQueueTest, DelayedItemsRunWhenTheirDelayIsOver) {
  queue_.postAfter(10ms, noting("late"));
  queue_.postAfter(0ms, noting("now"));
  queue_.run();
  EXPECT_EQ(happened_, (Events{"now"}));
  queue_.advance(10ms);
  EXPECT_EQ(happened_, (Events{"now", "late"}));
}

TEST_F(RunQueueTest, TheFarEndOfTimeIsReached) {
  queue_.advance(1h);
  queue_.postAfter(std::chrono::nanoseconds::max(), noting("never"));
  queue_.advance(std::chrono::nanoseconds::max());
  EXPECT_EQ(happened_, (Events{"never"}));
  EXPECT_EQ(queue_.now(), std::chrono::nanoseconds::max());
}

TEST_F(RunQueueTest, ASlowItemMakesOthersLate) {
  std::chrono::nanoseconds sounded{0};
  queue_.setAlarm(1s, [&] { sounded = queue_.now(); });
  queue_.post([this] { queue_.spend(3s); });
  queue_.advance(2s);
  EXPECT_EQ(sounded, 3s);
  EXPECT_EQ(queue_.now(), 3s);
}

TEST_F(RunQueueTest, RunUntilStopsAsSoonAsThePredicateHolds) {
  queue_.post(noting("a"));
  queue_.post(noting("b"));
  EXPECT_TRUE(queue_.runUntil([this] { return happened_.size() == 1; }, 1s));
  EXPECT_EQ(happened_, (Events{"a"}));
}

TEST_F(RunQueueTest, RunUntilLetsTimePassOnlyAsFarAsNeeded) {
  queue_.setAlarm(3s, noting("alarm"));
  EXPECT_TRUE(queue_.runUntil([this] { return !happened_.empty(); }, 10s));
  EXPECT_EQ(queue_.now(), 3s);
}

TEST_F(RunQueueTest, RunUntilGivesUpAtItsLimit) {
  queue_.setAlarm(3s, noting("alarm"));
  EXPECT_FALSE(queue_.runUntil([this] { return !happened_.empty(); }, 3s - 1ns));
  EXPECT_TRUE(happened_.empty());
}

TEST_F(RunQueueTest, AnItemMayNotDriveTheRun) {
  queue_.post([this] { queue_.run(); });
  EXPECT_THROW(queue_.run(), std::logic_error);
}

TEST_F(RunQueueTest, ARunWithoutEndIsNoticed) {
  std::function<void()> again = [&] { queue_.post([&again] { again(); }); };
  again();
  EXPECT_THROW(queue_.run(), std::logic_error);
}

TEST_F(RunQueueTest, ARunContinuesAfterAnItemThatThrew) {
  queue_.post([] { throw std::logic_error("from the item"); });
  queue_.post(noting("next"));
  EXPECT_THROW(queue_.run(), std::logic_error);
  queue_.run();
  EXPECT_EQ(happened_, (Events{"next"}));
}

TEST_F(RunQueueTest, ClearDropsItemsAndAlarms) {
  queue_.post(noting("a"));
  queue_.setAlarm(1s, noting("b"));
  queue_.clear();
  queue_.advance(2s);
  EXPECT_TRUE(happened_.empty());
}

TEST_F(RunQueueTest, ClearDropsWhatIsPostedWhileItClears) {
  struct PostsAtItsEnd {
    std::function<void()> post;
    ~PostsAtItsEnd() { post(); }
  };
  auto object = std::make_shared<PostsAtItsEnd>();
  object->post = [this] { queue_.post(noting("posted by a destructor")); };
  queue_.post([held = object] {});
  object.reset();
  queue_.clear();
  queue_.run();
  EXPECT_TRUE(happened_.empty());
}

Events orderOfSeed(std::uint64_t seed) {
  RunQueue queue(RunOrder::seeded, SeededRandom(seed, 0));
  Events happened;
  for (const std::string name : {"a", "b", "c"}) {
    queue.post([&happened, name] { happened.push_back(name); });
  }
  queue.run();
  return happened;
}

TEST(SeededRunQueueTest, EveryOrderOccurs) {
  std::set<Events> orders;
  for (std::uint64_t seed = 0; seed < 100; ++seed) {
    orders.insert(orderOfSeed(seed));
  }
  EXPECT_EQ(orders.size(), 6U);
}

TEST(SeededRunQueueTest, TheSameSeedGivesTheSameOrder) {
  for (std::uint64_t seed = 0; seed < 20; ++seed) {
    EXPECT_EQ(orderOfSeed(seed), orderOfSeed(seed));
  }
}

TEST(SeededRunQueueTest, TimeIsNotDrawn) {
  RunQueue queue(RunOrder::seeded, SeededRandom(1, 0));
  Events happened;
  for (int i = 9; i >= 0; --i) {
    queue.postAfter(std::chrono::seconds(i),
                    [&happened, i] { happened.push_back(std::to_string(i)); });
  }
  queue.advance(10s);
  EXPECT_EQ(happened, (Events{"0", "1", "2", "3", "4", "5", "6", "7", "8", "9"}));
}

TEST(ChosenRunQueueTest, TheChooserDecidesWhichItemRuns) {
  std::vector<std::uint64_t> bounds;
  RunQueue queue([&bounds](std::uint64_t bound) {
    bounds.push_back(bound);
    return bound - 1;
  });
  Events happened;
  for (const char* const name : {"a", "b", "c"}) {
    queue.post([&happened, name] { happened.emplace_back(name); });
  }
  queue.run();

  EXPECT_EQ(happened, (Events{"c", "b", "a"}));
  // Where there is one item there is nothing to choose.
  EXPECT_EQ(bounds, (std::vector<std::uint64_t>{3, 2}));
}

TEST_F(RunQueueTest, AnItemMayRunAnotherOneInsideIt) {
  queue_.post([this] {
    happened_.emplace_back("first begins");
    EXPECT_TRUE(queue_.runAnother());
    happened_.emplace_back("first ends");
  });
  queue_.post(noting("second"));
  queue_.run();

  EXPECT_EQ(happened_, (Events{"first begins", "second", "first ends"}));
}

TEST_F(RunQueueTest, AnItemOfABusySerialLaneCannotRunInsideAnother) {
  const auto lane = std::make_shared<WorkLane>("serial", platform::DispatchQueueKind::serial);
  queue_.post(lane, ItemKind::normal, [this] {
    EXPECT_FALSE(queue_.runAnother());
    happened_.emplace_back("first");
  });
  queue_.post(lane, ItemKind::normal, noting("second"));
  queue_.run();

  EXPECT_EQ(happened_, (Events{"first", "second"}));
}

TEST_F(RunQueueTest, NothingRunsInsideWhenNoItemIsRunning) {
  queue_.post(noting("a"));

  EXPECT_FALSE(queue_.runAnother());
  EXPECT_TRUE(happened_.empty());
}

}  // namespace
}  // namespace ostravel::simulation
