#include "Platform/Linux/Interception/FlowAdmission.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

namespace ostravel::linuxplatform::test {
namespace {

using namespace std::chrono_literals;

class FlowAdmissionTest : public testing::Test {
 protected:
  std::optional<LeaveReason> reason() {
    return FlowAdmission::reasonAgainst(*share_, descriptors_, now_);
  }
  void hold(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      share_->holdBegan();
    }
  }

  // Also lets the pause expire.
  void timeOut() {
    share_->handshakeTimedOut(now_);
    now_ += UserShare::kLongestTrialPause;
  }

  UserShare::Clock::time_point now_{};
  DescriptorBudget descriptors_{limits::kDescriptorReserve + 1000};
  const Reference<UserShare> share_ = makeReference<UserShare>();
};

TEST_F(FlowAdmissionTest, AUserGetsAtMostHalfOfThePendingHandshakes) {
  hold(23);
  EXPECT_EQ(reason(), std::nullopt);
  hold(1);
  EXPECT_EQ(reason(), LeaveReason::handshakeShare);
  share_->holdEnded();
  EXPECT_EQ(reason(), std::nullopt);
}

TEST_F(FlowAdmissionTest, AfterATimeoutFlowsAreOfferedOneAtATime) {
  timeOut();
  EXPECT_EQ(reason(), std::nullopt);
  hold(1);
  EXPECT_EQ(reason(), LeaveReason::onTrial);
  // The trial has failed as well.
  share_->holdEnded();
  timeOut();
  EXPECT_EQ(reason(), std::nullopt);
}

TEST_F(FlowAdmissionTest, PausesBetweenTrialsGrow) {
  for (const auto pause : {1s, 2s, 4s, 8s, 15s, 15s}) {
    share_->handshakeTimedOut(now_);
    // Handshakes that time out together count as one.
    share_->handshakeTimedOut(now_);
    EXPECT_EQ(FlowAdmission::reasonAgainst(*share_, descriptors_, now_ + pause - 1ms),
              LeaveReason::onTrial);
    now_ += pause;
    EXPECT_EQ(reason(), std::nullopt);
  }
  share_->handshakeSucceeded();
  share_->handshakeTimedOut(now_);
  now_ += UserShare::kShortestTrialPause;
  EXPECT_EQ(reason(), std::nullopt);
}

TEST_F(FlowAdmissionTest, ASuccessEndsTheTrial) {
  timeOut();
  hold(1);
  share_->handshakeSucceeded();
  EXPECT_EQ(reason(), std::nullopt);
}

TEST_F(FlowAdmissionTest, DescriptorsAreDividedAmongUsers) {
  // Two for this flow; the user's share must not exceed what is left.
  auto lease = descriptors_.lease(498, share_);
  EXPECT_EQ(reason(), std::nullopt);
  auto more = descriptors_.lease(2, share_);
  EXPECT_EQ(reason(), LeaveReason::descriptorShare);
  UserShare another;
  EXPECT_EQ(FlowAdmission::reasonAgainst(another, descriptors_, now_), std::nullopt);
}

TEST_F(FlowAdmissionTest, HeldFlowsCountAsFutureTunnels) {
  auto lease = descriptors_.lease(495, share_);
  hold(4);
  EXPECT_EQ(reason(), std::nullopt);
  hold(1);
  EXPECT_EQ(reason(), LeaveReason::descriptorShare);
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
