#include "Platform/Linux/Interception/HeldFlows.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "Tests/Platform/Linux/Support/NetworkFixture.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;

constexpr auto kGenerous = 20s;

class HeldFlowsTest : public ::testing::Test {
 protected:
  // Holds a real packet as one of this process to this host. Returns its id.
  std::uint32_t hold(std::uint8_t host, std::optional<pid_t> process, HeldFlows::TimePoint since) {
    applications_.push_back(std::make_unique<testing::Connecting>("127.0.0.1", 8000));
    const auto packets = testing::waitForPackets(*queue_, kGenerous);
    EXPECT_EQ(packets.size(), 1U);
    const std::uint32_t packet = packets.at(0).id;
    user_->holdBegan();
    held_.add({packet, destination(host), process, user_}, since);
    return packet;
  }
  static SocketEndpoint destination(std::uint8_t host) {
    return {AddressFamily::ipv4, {192, 0, 2, host}, 443};
  }

  const std::unique_ptr<PacketQueue> queue_ = *PacketQueue::open();
  const std::unique_ptr<InterceptionTable> table_ =
      *InterceptionTable::install(testing::loopbackSettings(), PacketMarks(), queue_->number(), {});
  const Reference<UserShare> user_ = makeReference<UserShare>();
  const HeldFlows::TimePoint start_{};
  HeldFlows held_{*queue_};

 private:
  std::vector<std::unique_ptr<testing::Connecting>> applications_;
};

TEST_F(HeldFlowsTest, ReleasesPacketsHeldForSixSeconds) {
  const auto old = hold(1, 10, start_);
  const auto young = hold(2, 10, start_ + 1ms);
  EXPECT_EQ(held_.releaseOld(start_ + 6s - 1ms), 0U);
  EXPECT_TRUE(queue_->isHeld(old));
  EXPECT_EQ(held_.releaseOld(start_ + 6s), 1U);
  EXPECT_FALSE(queue_->isHeld(old));
  EXPECT_TRUE(queue_->isHeld(young));
  EXPECT_EQ(held_.releaseOld(start_ + 7s), 1U);
  EXPECT_FALSE(queue_->isHeld(young));
  EXPECT_EQ(held_.size(), 0U);
  EXPECT_EQ(user_->held(), 0U);
}

TEST_F(HeldFlowsTest, DoesNotCountPacketsDecidedInTime) {
  queue_->accept(hold(1, 10, start_));
  hold(2, 10, start_);
  queue_->accept(hold(3, 10, start_));
  EXPECT_EQ(held_.releaseOld(start_ + 10s), 1U);
}

TEST_F(HeldFlowsTest, ForgetsDecidedPackets) {
  for (int i = 0; i < 100; ++i) {
    queue_->accept(hold(1, 10, start_));
  }
  EXPECT_LE(held_.size(), 1U);
}

TEST_F(HeldFlowsTest, ForgetsDecidedPacketsBeforeTheyAreOld) {
  queue_->accept(hold(1, 10, start_));
  EXPECT_EQ(held_.releaseOld(start_), 0U);
  EXPECT_EQ(held_.size(), 0U);
}

TEST_F(HeldFlowsTest, FindsAnotherProcessHeldForTheSameDestination) {
  const auto packet = hold(1, 10, start_);
  EXPECT_TRUE(held_.isOtherHeldFor(destination(1), 11));
  EXPECT_TRUE(held_.isOtherHeldFor(destination(1), std::nullopt));
  EXPECT_FALSE(held_.isOtherHeldFor(destination(1), 10));
  EXPECT_FALSE(held_.isOtherHeldFor(destination(2), 11));
  queue_->accept(packet);
  EXPECT_FALSE(held_.isOtherHeldFor(destination(1), 11));
}

TEST_F(HeldFlowsTest, SuspectsALoopOnASecondPacketWhileAnotherIsHeld) {
  const auto application = hold(1, 10, start_);
  hold(1, 11, start_);
  EXPECT_FALSE(held_.isLoopLikely(destination(1), 11));
  hold(1, 11, start_);
  EXPECT_TRUE(held_.isLoopLikely(destination(1), 11));
  EXPECT_FALSE(held_.isLoopLikely(destination(1), 10));
  EXPECT_FALSE(held_.isLoopLikely(destination(1), 12));
  EXPECT_FALSE(held_.isLoopLikely(destination(1), std::nullopt));
  EXPECT_FALSE(held_.isLoopLikely(destination(2), 11));
  queue_->accept(application);
  EXPECT_FALSE(held_.isLoopLikely(destination(1), 11));
}

TEST_F(HeldFlowsTest, ManyConnectionsOfOneProcessAreNoLoop) {
  for (int count = 0; count < 3; ++count) {
    hold(1, 10, start_);
  }
  EXPECT_FALSE(held_.isLoopLikely(destination(1), 10));
}

}  // namespace
}  // namespace ostravel::linuxplatform
