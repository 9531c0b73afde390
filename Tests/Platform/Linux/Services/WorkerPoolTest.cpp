#include "Platform/Linux/Services/WorkerPool.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <future>
#include <latch>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "Tests/Platform/Linux/Support/FailingCalls.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

// One item for one turn, counted like a queue's item.
class OneItem final : public WorkerPool::Client {
 public:
  OneItem(WorkerPool& pool, std::function<void()> work) : pool_(pool), work_(std::move(work)) {
    pool_.itemSubmitted();
  }

  void takeTurn() override {
    work_();
    pool_.itemFinished();
  }

 private:
  WorkerPool& pool_;
  const std::function<void()> work_;
};

// The objects that items refer to have to outlive them.
void drain(WorkerPool& pool) {
  ASSERT_TRUE(pool.drain(steady_clock::now() + 60s));
}

void submit(WorkerPool& pool, std::function<void()> work) {
  pool.submit(std::make_shared<OneItem>(pool, std::move(work)));
}

TEST(WorkerPoolTest, GivesTurnsOnItsOwnThreads) {
  WorkerPool pool;
  std::promise<std::thread::id> thread;
  submit(pool, [&thread] { thread.set_value(std::this_thread::get_id()); });
  EXPECT_NE(thread.get_future().get(), std::this_thread::get_id());
  drain(pool);
}

TEST(WorkerPoolTest, AllThreadsWorkInParallel) {
  WorkerPool pool;
  std::latch together(WorkerPool::kThreads);
  for (std::size_t i = 0; i < WorkerPool::kThreads; ++i) {
    submit(pool, [&together] { together.arrive_and_wait(); });
  }
  EXPECT_TRUE(pool.drain(steady_clock::now() + 60s));
}

TEST(WorkerPoolTest, TwoThreadsAreLeftWhenTwoItemsBlock) {
  WorkerPool pool;
  std::latch release(1);
  std::latch bothBlock(2);
  for (int i = 0; i < 2; ++i) {
    submit(pool, [&] {
      bothBlock.count_down();
      release.wait();
    });
  }
  bothBlock.wait();
  std::latch together(2);
  for (int i = 0; i < 2; ++i) {
    submit(pool, [&together] { together.arrive_and_wait(); });
  }
  together.wait();
  release.count_down();
  drain(pool);
}

TEST(WorkerPoolTest, GivesTurnsInOrder) {
  WorkerPool pool;
  std::latch release(1);
  std::latch othersBlock(WorkerPool::kThreads - 1);
  for (std::size_t i = 0; i + 1 < WorkerPool::kThreads; ++i) {
    submit(pool, [&] {
      othersBlock.count_down();
      release.wait();
    });
  }
  othersBlock.wait();
  std::vector<int> order;
  std::latch done(100);
  for (int i = 0; i < 100; ++i) {
    submit(pool, [&, i] {
      order.push_back(i);
      done.count_down();
    });
  }
  done.wait();
  release.count_down();
  drain(pool);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
  }
}

TEST(WorkerPoolTest, IsDrainedAtOnceWithoutItems) {
  WorkerPool pool;
  EXPECT_TRUE(pool.drain(steady_clock::now()));
}

TEST(WorkerPoolTest, ReportsAnItemStillRunningAtTheDeadline) {
  WorkerPool pool;
  std::latch release(1);
  submit(pool, [&release] { release.wait(); });
  EXPECT_FALSE(pool.drain(steady_clock::now() + 10ms));
  release.count_down();
  EXPECT_TRUE(pool.drain(steady_clock::now() + 60s));
}

TEST(WorkerPoolTest, DrainingWaitsForItemsThatItemsSubmit) {
  WorkerPool pool;
  std::atomic<int> ran = 0;
  submit(pool, [&] {
    submit(pool, [&] {
      submit(pool, [&ran] { ++ran; });
      ++ran;
    });
    ++ran;
  });
  EXPECT_TRUE(pool.drain(steady_clock::now() + 60s));
  EXPECT_EQ(ran, 3);
}

TEST(WorkerPoolTest, DestructionRunsTheRemainingItems) {
  std::atomic<int> ran = 0;
  {
    WorkerPool pool;
    for (int i = 0; i < 1000; ++i) {
      submit(pool, [&ran] { ++ran; });
    }
  }
  EXPECT_EQ(ran, 1000);
}

TEST(WorkerPoolTest, IsThereOrThrows) {
  testing::withFailingCalls({SYS_clone3}, EAGAIN,
                            [] { EXPECT_THROW(const WorkerPool pool, std::system_error); });
}

}  // namespace
}  // namespace ostravel::linuxplatform
