#import "Platform/macOS/Dispatch/CompletionQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <vector>

#import "Tests/Platform/macOS/Support/ObjectCensus.h"
#include "Tests/Support/WaitUntil.h"

namespace ostravel::macos::test {
namespace {

using testing::waitUntil;

TEST(CompletionQueueTest, CompletionsRunOneAfterTheOther) {
  constexpr int kCompletions = 1000;
  const auto queue = std::make_shared<CompletionQueue>();
  std::vector<int> order;
  std::atomic<bool> isDone = false;
  for (int i = 0; i < kCompletions; ++i) {
    queue->run([&order, i] { order.push_back(i); });
  }
  queue->run([&isDone] { isDone = true; });
  ASSERT_TRUE(waitUntil([&isDone] { return isDone.load(); }));
  ASSERT_EQ(order.size(), static_cast<std::size_t>(kCompletions));
  for (int i = 0; i < kCompletions; ++i) {
    ASSERT_EQ(order[static_cast<std::size_t>(i)], i);
  }
}

TEST(CompletionQueueTest, ACompletionFindsItsOwnQueue) {
  const auto queue = std::make_shared<CompletionQueue>();
  std::shared_ptr<CompletionQueue> found;
  std::atomic<bool> isDone = false;
  queue->run([&] {
    found = CompletionQueue::current();
    isDone = true;
  });
  ASSERT_TRUE(waitUntil([&isDone] { return isDone.load(); }));
  EXPECT_EQ(found, queue);
  EXPECT_NE(CompletionQueue::current(), queue);
}

// Flows that bypass the proxy, which are many, have no completions.
TEST(CompletionQueueTest, ADispatchQueueIsMadeForTheFirstCompletion) {
  // Far more than the queues of other tests that may end meanwhile.
  constexpr int kQueues = 100;
  const auto count = [] { return takeCensus()["StandInQueue"]; };
  const int before = count();
  std::vector<std::shared_ptr<CompletionQueue>> queues;
  for (int i = 0; i < kQueues; ++i) {
    queues.push_back(std::make_shared<CompletionQueue>());
  }
  EXPECT_LE(count(), before);
  for (const auto& queue : queues) {
    queue->run([] {});
  }
  EXPECT_GE(count(), kQueues);
}

}  // namespace
}  // namespace ostravel::macos::test
