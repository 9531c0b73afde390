#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Interface/DispatchQueue.h"
#include "Tests/Contract/ContractTest.h"
#include "Tests/Contract/EventList.h"
#include "Tests/Contract/OverlapCheck.h"

namespace ostravel::contract {
namespace {

using namespace std::chrono_literals;
using platform::DispatchQueueKind;

std::vector<int> firstNumbers(int count) {
  std::vector<int> numbers(static_cast<std::size_t>(count));
  std::iota(numbers.begin(), numbers.end(), 0);
  return numbers;
}

class DispatchQueueContractTest : public ContractTest {
 protected:
  const std::shared_ptr<platform::DispatchQueue> serial_ =
      platform().makeQueue("serial", DispatchQueueKind::serial);
  const std::shared_ptr<platform::DispatchQueue> concurrent_ =
      platform().makeQueue("concurrent", DispatchQueueKind::concurrent);
};

TEST_P(DispatchQueueContractTest, AQueueHasItsLabel) {
  EXPECT_EQ(serial_->label(), "serial");
  EXPECT_EQ(concurrent_->label(), "concurrent");
}

TEST_P(DispatchQueueContractTest, SerialItemsRunInOrderAndNeverTogether) {
  EventList<int> happened;
  OverlapCheck overlap;
  for (int i = 0; i < 1000; ++i) {
    serial_->async([&happened, &overlap, i] {
      const OverlapCheck::Scope scope(overlap);
      happened.add(i);
    });
  }
  ASSERT_TRUE(waitUntil([&] { return happened.size() == 1000; }));
  // The last item may be about to close its scope.
  serial_->sync([] {});
  EXPECT_EQ(happened.all(), firstNumbers(1000));
  EXPECT_FALSE(overlap.overlapped());
}

TEST_P(DispatchQueueContractTest, AnItemRunsAfterTheItemThatSubmittedIt) {
  EventList<std::string> happened;
  serial_->async([&] {
    serial_->async([&] { happened.add("submitted"); });
    happened.add("submits");
  });
  ASSERT_TRUE(waitUntil([&] { return happened.size() == 2; }));
  EXPECT_EQ(happened.all(), (std::vector<std::string>{"submits", "submitted"}));
}

TEST_P(DispatchQueueContractTest, BarrierItemsOnASerialQueueKeepTheOrder) {
  EventList<int> happened;
  for (int i = 0; i < 100; ++i) {
    const auto work = [&happened, i] { happened.add(i); };
    if (i % 3 == 0) {
      serial_->asyncBarrier(work);
    } else {
      serial_->async(work);
    }
  }
  ASSERT_TRUE(waitUntil([&] { return happened.size() == 100; }));
  EXPECT_EQ(happened.all(), firstNumbers(100));
}

TEST_P(DispatchQueueContractTest, EveryConcurrentItemRunsOnce) {
  std::vector<std::atomic<int>> runs(1000);
  std::atomic<int> total = 0;
  for (auto& count : runs) {
    concurrent_->async([&count, &total] {
      ++count;
      ++total;
    });
  }
  ASSERT_TRUE(waitUntil([&] { return total == 1000; }));
  for (const auto& count : runs) {
    EXPECT_EQ(count, 1);
  }
}

TEST_P(DispatchQueueContractTest, ABarrierRunsAloneBetweenWhatIsBeforeAndAfterIt) {
  constexpr int kRounds = 50;
  constexpr int kItems = 10;
  std::atomic<int> running = 0;
  std::atomic<int> finished = 0;
  std::atomic<int> barriers = 0;
  std::atomic<bool> wrong = false;
  for (int round = 0; round < kRounds; ++round) {
    for (int item = 0; item < kItems; ++item) {
      concurrent_->async([&, round] {
        ++running;
        wrong = wrong || barriers != round;
        ++finished;
        --running;
      });
    }
    concurrent_->asyncBarrier([&, round] {
      wrong = wrong || running != 0 || finished != (round + 1) * kItems;
      ++barriers;
    });
  }
  ASSERT_TRUE(waitUntil([&] { return barriers == kRounds; }));
  EXPECT_FALSE(wrong);
}

TEST_P(DispatchQueueContractTest, SyncReturnsAfterItsItemAndEverythingBeforeItOnASerialQueue) {
  for (int round = 0; round < 200; ++round) {
    std::atomic<int> ran = 0;
    for (int item = 0; item < 5; ++item) {
      serial_->async([&ran] { ++ran; });
    }
    int seenByItem = -1;
    serial_->sync([&] { seenByItem = ran; });
    ASSERT_EQ(seenByItem, 5);
  }
}

TEST_P(DispatchQueueContractTest, ALookUpSeesTheStoreBeforeIt) {
  // Deliberately not atomic: the queue is the lock.
  int stored = 0;
  for (int i = 1; i <= 500; ++i) {
    concurrent_->asyncBarrier([&stored, i] { stored = i; });
    int found = 0;
    concurrent_->sync([&] { found = stored; });
    ASSERT_EQ(found, i);
  }
}

TEST_P(DispatchQueueContractTest, SyncBarrierExcludesAllOthers) {
  int stored = 0;
  for (int i = 1; i <= 500; ++i) {
    concurrent_->async([&stored] { EXPECT_GE(stored, 0); });
    concurrent_->syncBarrier([&stored, i] { stored = i; });
  }
  int found = 0;
  concurrent_->sync([&] { found = stored; });
  EXPECT_EQ(found, 500);
}

TEST_P(DispatchQueueContractTest, ASyncItemIsNotCopied) {
  struct Item {
    Item() = default;
    Item(const Item&) = delete;
    void operator()() { ++runs; }
    int runs = 0;
  };
  Item item;
  serial_->sync(item);
  concurrent_->sync(item);
  concurrent_->syncBarrier(item);
  EXPECT_EQ(item.runs, 3);
}

TEST_P(DispatchQueueContractTest, SyncFromAnItemOfAnotherQueueReturns) {
  std::atomic<int> done = 0;
  std::vector<std::shared_ptr<platform::DispatchQueue>> queues;
  // More than any platform has threads, all of which wait.
  for (int i = 0; i < 64; ++i) {
    queues.push_back(platform().makeQueue("waiting", DispatchQueueKind::serial));
    queues.back()->async([&] {
      concurrent_->asyncBarrier([] {});
      concurrent_->sync([&done] { ++done; });
    });
  }
  EXPECT_TRUE(waitUntil([&] { return done == 64; }));
  for (const auto& queue : queues) {
    queue->sync([] {});
  }
}

TEST_P(DispatchQueueContractTest, ManyQueuesKeepTheirOwnOrder) {
  constexpr std::size_t kQueues = 500;
  constexpr int kItems = 20;
  std::vector<EventList<int>> happened(kQueues);
  std::vector<std::shared_ptr<platform::DispatchQueue>> queues;
  std::atomic<std::size_t> ran = 0;
  for (std::size_t i = 0; i < kQueues; ++i) {
    queues.push_back(platform().makeQueue("queue " + std::to_string(i), DispatchQueueKind::serial));
  }
  for (int item = 0; item < kItems; ++item) {
    for (std::size_t i = 0; i < kQueues; ++i) {
      queues[i]->async([&list = happened[i], &ran, item] {
        list.add(item);
        ++ran;
      });
    }
  }
  ASSERT_TRUE(waitUntil([&] { return ran == kQueues * kItems; }));
  for (const auto& list : happened) {
    ASSERT_EQ(list.all(), firstNumbers(kItems));
  }
}

TEST_P(DispatchQueueContractTest, ItemsOfADestroyedQueueStillRunInOrder) {
  EventList<int> happened;
  auto queue = platform().makeQueue("gone", DispatchQueueKind::serial);
  for (int i = 0; i < 100; ++i) {
    queue->async([&happened, i] { happened.add(i); });
  }
  queue.reset();
  ASSERT_TRUE(waitUntil([&] { return happened.size() == 100; }));
  EXPECT_EQ(happened.all(), firstNumbers(100));
}

TEST_P(DispatchQueueContractTest, AnItemMayHoldTheLastReferenceToItsQueue) {
  EventList<std::string> happened;
  auto queue = platform().makeQueue("held by its item", DispatchQueueKind::serial);
  auto& sameQueue = *queue;
  sameQueue.async([&happened, queue = std::move(queue)] {
    queue->async([&happened] { happened.add("behind it"); });
    happened.add("item");
  });
  ASSERT_TRUE(waitUntil([&] { return happened.size() == 2; }));
  EXPECT_EQ(happened.all(), (std::vector<std::string>{"item", "behind it"}));
}

TEST_P(DispatchQueueContractTest, AnItemReleasesWhatItHolds) {
  auto held = std::make_shared<int>(0);
  const std::weak_ptr<int> weakHeld = held;
  concurrent_->asyncBarrier([held = std::move(held)] { ++*held; });
  EXPECT_TRUE(waitUntil([&] { return weakHeld.expired(); }));
}

TEST_P(DispatchQueueContractTest, ASlowItemHoldsUpItsOwnQueueOnly) {
  std::atomic<bool> mayEnd = false;
  std::atomic<bool> otherRan = false;
  std::atomic<bool> behindRan = false;
  std::atomic<bool> overtaken = false;
  const auto other = platform().makeQueue("other", DispatchQueueKind::serial);
  serial_->async([&] {
    const auto end = environment_->now() + 100ms;
    while (!mayEnd && environment_->now() < end) {
      environment_->spend(1ms);
    }
    overtaken = behindRan.load();
  });
  serial_->async([&] { behindRan = true; });
  other->async([&] {
    otherRan = true;
    mayEnd = true;
  });
  EXPECT_TRUE(waitUntil([&] { return otherRan && behindRan; }));
  EXPECT_FALSE(overtaken);
  other->sync([] {});
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Contract, DispatchQueueContractTest,
                         ::testing::ValuesIn(contractPlatforms()), platformName);

}  // namespace ostravel::contract
