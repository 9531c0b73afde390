#include "Platform/Simulation/Schedule/SimulatedQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "Platform/Simulation/Simulation.h"

namespace ostravel::simulation {
namespace {

using platform::DispatchQueueKind;
using Events = std::vector<std::string>;

class SimulatedQueueTest : public testing::Test {
 protected:
  std::function<void()> noting(const std::string& what) {
    return [this, what] { happened_.push_back(what); };
  }

  Simulation simulation_;
  const std::shared_ptr<platform::DispatchQueue> serial_ =
      simulation_.makeQueue("serial", DispatchQueueKind::serial);
  const std::shared_ptr<platform::DispatchQueue> concurrent_ =
      simulation_.makeQueue("concurrent", DispatchQueueKind::concurrent);
  Events happened_;
};

TEST_F(SimulatedQueueTest, HasItsLabel) {
  EXPECT_EQ(serial_->label(), "serial");
}

TEST_F(SimulatedQueueTest, AsyncReturnsBeforeTheItemRuns) {
  serial_->async(noting("item"));
  EXPECT_TRUE(happened_.empty());
  simulation_.run();
  EXPECT_EQ(happened_, (Events{"item"}));
}

TEST_F(SimulatedQueueTest, QueuesShareOneOrderOfSubmission) {
  serial_->async(noting("a"));
  serial_->async(noting("b"));
  concurrent_->async(noting("c"));
  serial_->async(noting("d"));
  simulation_.run();
  EXPECT_EQ(happened_, (Events{"a", "b", "c", "d"}));
}

TEST_F(SimulatedQueueTest, SyncRunsInTheCallerBeforeItReturns) {
  serial_->sync(noting("sync"));
  happened_.push_back("returned");
  EXPECT_EQ(happened_, (Events{"sync", "returned"}));
}

TEST_F(SimulatedQueueTest, SyncOnASerialQueueRunsWhatPrecedesIt) {
  serial_->async(noting("a"));
  serial_->async(noting("b"));
  serial_->sync(noting("sync"));
  serial_->async(noting("c"));
  EXPECT_EQ(happened_, (Events{"a", "b", "sync"}));
}

TEST_F(SimulatedQueueTest, SyncOnAConcurrentQueueWaitsForNoOrdinaryItem) {
  concurrent_->async(noting("ordinary"));
  concurrent_->sync(noting("sync"));
  EXPECT_EQ(happened_, (Events{"sync"}));
}

TEST_F(SimulatedQueueTest, SyncWaitsForBarriersAndWhatIsBeforeThem) {
  concurrent_->async(noting("before"));
  concurrent_->asyncBarrier(noting("barrier"));
  concurrent_->async(noting("after"));
  concurrent_->sync(noting("sync"));
  EXPECT_EQ(happened_, (Events{"before", "barrier", "sync"}));
  simulation_.run();
  EXPECT_EQ(happened_.back(), "after");
}

TEST_F(SimulatedQueueTest, SyncBarrierWaitsForAll) {
  concurrent_->async(noting("a"));
  concurrent_->async(noting("b"));
  concurrent_->syncBarrier(noting("sync"));
  EXPECT_EQ(happened_, (Events{"a", "b", "sync"}));
}

TEST_F(SimulatedQueueTest, WhatAPrecedingItemSubmitsRunsAfterTheSync) {
  serial_->async([this] {
    happened_.push_back("a");
    serial_->async(noting("b"));
  });
  serial_->sync(noting("sync"));
  EXPECT_EQ(happened_, (Events{"a", "sync"}));
}

TEST_F(SimulatedQueueTest, SyncFromAnItemOfAnotherQueueWorks) {
  serial_->async([this] {
    concurrent_->asyncBarrier(noting("store"));
    concurrent_->sync(noting("look up"));
    happened_.push_back("done");
  });
  simulation_.run();
  EXPECT_EQ(happened_, (Events{"store", "look up", "done"}));
}

TEST_F(SimulatedQueueTest, SyncFromAnItemOfTheSameQueueIsAnError) {
  for (const auto& queue : {serial_, concurrent_}) {
    queue->async([&queue] { queue->sync([] {}); });
    EXPECT_THROW(simulation_.run(), std::logic_error);
    queue->async([&queue] { queue->syncBarrier([] {}); });
    EXPECT_THROW(simulation_.run(), std::logic_error);
  }
}

TEST_F(SimulatedQueueTest, QueuesThatWaitForOneAnotherAreAnError) {
  serial_->async([this] { concurrent_->sync([this] { serial_->sync([] {}); }); });
  EXPECT_THROW(simulation_.run(), std::logic_error);
}

TEST_F(SimulatedQueueTest, ReadersMayMeetAcrossQueues) {
  concurrent_->async(
      [this] { serial_->sync([this] { concurrent_->sync(noting("reader beside a reader")); }); });
  simulation_.run();
  EXPECT_EQ(happened_, (Events{"reader beside a reader"}));
}

TEST_F(SimulatedQueueTest, AQueueIsUsableAfterAnItemThatThrew) {
  serial_->async([] { throw std::logic_error("from the item"); });
  EXPECT_THROW(simulation_.run(), std::logic_error);
  EXPECT_THROW(serial_->sync([] { throw std::logic_error("from the sync item"); }),
               std::logic_error);
  serial_->async(noting("next"));
  serial_->sync(noting("sync"));
  EXPECT_EQ(happened_, (Events{"next", "sync"}));
}

TEST_F(SimulatedQueueTest, ItemsOfADestroyedQueueStillRunInOrder) {
  auto queue = simulation_.makeQueue("gone", DispatchQueueKind::serial);
  queue->async(noting("a"));
  queue->async(noting("b"));
  queue.reset();
  simulation_.run();
  EXPECT_EQ(happened_, (Events{"a", "b"}));
}

TEST_F(SimulatedQueueTest, AnItemMayHoldTheLastReferenceToItsQueue) {
  auto queue = simulation_.makeQueue("held", DispatchQueueKind::serial);
  auto& raw = *queue;
  raw.async([this, queue = std::move(queue)] {
    queue->async(noting("behind"));
    happened_.push_back("item");
  });
  simulation_.run();
  EXPECT_EQ(happened_, (Events{"item", "behind"}));
}

TEST_F(SimulatedQueueTest, AnItemReleasesWhatItHoldsBeforeTheNextItem) {
  auto held = std::make_shared<int>(1);
  const std::weak_ptr<int> weakHeld = held;
  serial_->async([held = std::move(held)] {});
  serial_->async([&] { happened_.push_back(weakHeld.expired() ? "gone" : "there"); });
  simulation_.run();
  EXPECT_EQ(happened_, (Events{"gone"}));
}

// Of items 0 to 5 with a barrier at 2: 0 and 1 in any order, 2, then 3 to 5 in any order.
TEST(SeededSimulatedQueueTest, BarriersLimitReordering) {
  std::set<std::string> orders;
  for (std::uint64_t seed = 0; seed < 300; ++seed) {
    Simulation simulation({.order = RunOrder::seeded, .seed = seed, .faults = {}});
    const auto queue = simulation.makeQueue("q", DispatchQueueKind::concurrent);
    std::string order;
    for (char item = '0'; item <= '5'; ++item) {
      auto work = [&order, item] { order += item; };
      item == '2' ? queue->asyncBarrier(work) : queue->async(work);
    }
    simulation.run();
    ASSERT_EQ(order.find('2'), 2U) << order;
    orders.insert(order);
  }
  EXPECT_EQ(orders.size(), 2U * 6U);
}

TEST(SeededSimulatedQueueTest, SerialQueuesKeepTheirOrderAndInterleave) {
  std::set<std::string> orders;
  for (std::uint64_t seed = 0; seed < 300; ++seed) {
    Simulation simulation({.order = RunOrder::seeded, .seed = seed, .faults = {}});
    const auto letters = simulation.makeQueue("letters", DispatchQueueKind::serial);
    const auto digits = simulation.makeQueue("digits", DispatchQueueKind::serial);
    std::string order;
    for (const char item : {'a', 'b'}) {
      letters->async([&order, item] { order += item; });
    }
    for (const char item : {'1', '2'}) {
      digits->async([&order, item] { order += item; });
    }
    simulation.run();
    ASSERT_LT(order.find('a'), order.find('b'));
    ASSERT_LT(order.find('1'), order.find('2'));
    orders.insert(order);
  }
  EXPECT_EQ(orders.size(), 6U);
}

}  // namespace
}  // namespace ostravel::simulation
