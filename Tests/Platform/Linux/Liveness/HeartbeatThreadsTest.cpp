#include "Platform/Linux/Liveness/HeartbeatThreads.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <latch>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "Platform/Linux/Services/DescriptorBudget.h"
#include "Tests/Support/WaitUntil.h"

namespace ostravel::linuxplatform::test {
namespace {

using namespace std::chrono_literals;

class Turn final : public WorkerPool::Client {
 public:
  explicit Turn(std::function<void()> work) : work_(std::move(work)) {}
  void takeTurn() override { work_(); }

 private:
  const std::function<void()> work_;
};

class HeartbeatThreadsTest : public ::testing::Test {
 protected:
  ~HeartbeatThreadsTest() override { release(); }

  void blockLoop(unsigned index) {
    std::latch blocks(1);
    loops_.loop(index).post([this, &blocks] {
      blocks.count_down();
      released_.wait();
    });
    blocks.wait();
  }

  void blockWorkers(int count) {
    std::latch blocks(count);
    for (int i = 0; i < count; ++i) {
      workers_.submit(std::make_shared<Turn>([this, &blocks] {
        blocks.count_down();
        released_.wait();
      }));
    }
    blocks.wait();
  }

  void release() {
    if (!released_.try_wait()) {
      released_.count_down();
    }
  }

  // Whether all participants answer within a generous time.
  bool beatsWithin(std::chrono::milliseconds limit) {
    return testing::waitUntil([this] { return heartbeat_.check(); }, limit);
  }

  // Once everything that is not blocked has had a turn, no further answer can arrive.
  HeartbeatParticipants laggardsOnce(HeartbeatParticipants expected) {
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    do {
      heartbeat_.check();
    } while (record_.laggards() != expected && std::chrono::steady_clock::now() < deadline);
    return record_.laggards();
  }

  std::latch released_{1};
  HeartbeatRecord record_;
  Heartbeat heartbeat_{record_};
  WorkerPool workers_;
  DescriptorBudget budget_{1000};
  EventLoopGroup loops_{budget_, 2};
};

TEST_F(HeartbeatThreadsTest, IdleThreadsAnswer) {
  const auto memberships = joinHeartbeat(heartbeat_, loops_, workers_);
  EXPECT_EQ(memberships.size(), 3U);
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(beatsWithin(20s));
  }
}

TEST_F(HeartbeatThreadsTest, ABlockedLoopLags) {
  blockLoop(1);
  const auto memberships = joinHeartbeat(heartbeat_, loops_, workers_);
  EXPECT_EQ(laggardsOnce(eventLoopParticipant(1)), eventLoopParticipant(1));
  EXPECT_EQ(record_.beats(), 0U);
  release();
  EXPECT_TRUE(beatsWithin(20s));
}

TEST_F(HeartbeatThreadsTest, TwoWorkThreadsMayBeBlocked) {
  blockWorkers(2);
  const auto memberships = joinHeartbeat(heartbeat_, loops_, workers_);
  EXPECT_TRUE(beatsWithin(20s));
  EXPECT_TRUE(beatsWithin(20s));
}

TEST_F(HeartbeatThreadsTest, WorkThreadsLagWhenAllAreBlocked) {
  blockWorkers(WorkerPool::kThreads);
  const auto memberships = joinHeartbeat(heartbeat_, loops_, workers_);
  EXPECT_EQ(laggardsOnce(kWorkThreadsParticipant), kWorkThreadsParticipant);
  EXPECT_EQ(record_.beats(), 0U);
  release();
  EXPECT_TRUE(beatsWithin(20s));
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
