#include "Platform/Linux/Interception/HeldFlows.h"

#include <gtest/gtest.h>

#include <memory>
#include <variant>
#include <vector>

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;

class HeldFlowsTest : public ::testing::Test {
 protected:
  // A packet unknown to the kernel, where verdicts on it have no effect.
  std::shared_ptr<QueuedPacket::State> hold(std::uint8_t host, std::optional<pid_t> process,
                                            HeldFlows::TimePoint since) {
    FlowTuple tuple;
    tuple.destination = destination(host);
    auto packet = std::make_shared<QueuedPacket::State>(queue_, PacketMarks(), ++lastId_, 0, user_);
    held_.add(packet, tuple, process, since);
    return packet;
  }
  static SocketEndpoint destination(std::uint8_t host) {
    return {AddressFamily::ipv4, {192, 0, 2, host}, 443};
  }

  const std::shared_ptr<PacketQueue> queue_ = *PacketQueue::open();
  const std::shared_ptr<UserShare> user_ = std::make_shared<UserShare>();
  const HeldFlows::TimePoint start_{};
  std::uint32_t lastId_ = 0;
  HeldFlows held_;
};

TEST_F(HeldFlowsTest, APacketCountsForItsUserUntilTheFirstVerdict) {
  const auto packet = hold(1, 10, start_);
  EXPECT_EQ(user_->held(), 1U);
  packet->accept();
  packet->accept();
  packet->refuse();
  EXPECT_EQ(user_->held(), 0U);
}

TEST_F(HeldFlowsTest, ADestroyedPacketIsReleased) {
  auto packet = hold(1, 10, start_);
  packet.reset();
  EXPECT_EQ(user_->held(), 0U);
}

TEST_F(HeldFlowsTest, ReleasesPacketsHeldForSixSeconds) {
  const auto old = hold(1, 10, start_);
  const auto young = hold(2, 10, start_ + 1ms);
  EXPECT_EQ(held_.releaseOld(start_ + 6s - 1ms), 0U);
  EXPECT_FALSE(old->isDecided());
  EXPECT_EQ(held_.releaseOld(start_ + 6s), 1U);
  EXPECT_TRUE(old->isDecided());
  EXPECT_FALSE(young->isDecided());
  EXPECT_EQ(held_.releaseOld(start_ + 7s), 1U);
  EXPECT_TRUE(young->isDecided());
  EXPECT_EQ(held_.size(), 0U);
}

TEST_F(HeldFlowsTest, DoesNotCountPacketsDecidedInTime) {
  hold(1, 10, start_)->accept();
  const auto packet = hold(2, 10, start_);
  const auto decided = hold(3, 10, start_);
  decided->accept();
  EXPECT_EQ(held_.releaseOld(start_ + 10s), 1U);
}

TEST_F(HeldFlowsTest, ForgetsDecidedPackets) {
  for (int i = 0; i < 1000; ++i) {
    hold(1, 10, start_)->accept();
  }
  EXPECT_LE(held_.size(), 1U);
}

TEST_F(HeldFlowsTest, FindsAnotherProcessHeldForTheSameDestination) {
  const auto packet = hold(1, 10, start_);
  EXPECT_TRUE(held_.isOtherHeldFor(destination(1), 11));
  EXPECT_TRUE(held_.isOtherHeldFor(destination(1), std::nullopt));
  EXPECT_FALSE(held_.isOtherHeldFor(destination(1), 10));
  EXPECT_FALSE(held_.isOtherHeldFor(destination(2), 11));
  packet->accept();
  EXPECT_FALSE(held_.isOtherHeldFor(destination(1), 11));
}

TEST_F(HeldFlowsTest, SuspectsALoopOnASecondPacketWhileAnotherIsHeld) {
  const auto application = hold(1, 10, start_);
  const auto first = hold(1, 11, start_);
  EXPECT_FALSE(held_.isLoopLikely(destination(1), 11));
  const auto second = hold(1, 11, start_);
  EXPECT_TRUE(held_.isLoopLikely(destination(1), 11));
  EXPECT_FALSE(held_.isLoopLikely(destination(1), 10));
  EXPECT_FALSE(held_.isLoopLikely(destination(1), 12));
  EXPECT_FALSE(held_.isLoopLikely(destination(1), std::nullopt));
  EXPECT_FALSE(held_.isLoopLikely(destination(2), 11));
  application->accept();
  EXPECT_FALSE(held_.isLoopLikely(destination(1), 11));
}

TEST_F(HeldFlowsTest, ManyConnectionsOfOneProcessAreNoLoop) {
  const std::vector<std::shared_ptr<QueuedPacket::State>> packets{
      hold(1, 10, start_), hold(1, 10, start_), hold(1, 10, start_)};
  EXPECT_FALSE(held_.isLoopLikely(destination(1), 10));
}

TEST_F(HeldFlowsTest, ReleasesEverythingAtTheEnd) {
  const auto first = hold(1, 10, start_);
  const auto second = hold(2, std::nullopt, start_);
  held_.releaseAll();
  EXPECT_TRUE(first->isDecided());
  EXPECT_TRUE(second->isDecided());
}

}  // namespace
}  // namespace ostravel::linuxplatform
