#include "Platform/Linux/Services/UserShares.h"

#include <gtest/gtest.h>

#include <chrono>

namespace ostravel::linuxplatform::test {
namespace {

using namespace std::chrono_literals;

TEST(UserSharesTest, EveryUserHasOneShare) {
  UserShares shares;
  EXPECT_EQ(shares.of(1000), shares.of(1000));
  EXPECT_NE(shares.of(1000), shares.of(1001));
  EXPECT_NE(shares.of(0), shares.of(std::nullopt));
  EXPECT_EQ(shares.of(std::nullopt), shares.of(std::nullopt));
}

TEST(UserSharesTest, ForgetsIdleUsersWhenThereAreMany) {
  UserShares shares;
  const auto held = shares.of(1);
  held->holdBegan();
  const auto referenced = shares.of(2);
  shares.of(3)->handshakeTimedOut({});
  for (uid_t user = 100'000; user < 200'000; ++user) {
    shares.of(user);
  }
  EXPECT_LE(shares.size(), 2 * UserShares::kManyUsers);
  EXPECT_EQ(shares.of(1), held);
  EXPECT_EQ(shares.of(2), referenced);
  EXPECT_TRUE(shares.of(3)->isOnTrial());
}

class OfferRateTest : public ::testing::Test {
 protected:
  // How many of count offers within a second exceed the rate.
  int excess(UserShare& share, int count) {
    int exceeding = 0;
    for (int i = 0; i < count; ++i) {
      now_ += std::chrono::nanoseconds(1s) / count;
      exceeding += share.exceedsRate(now_) ? 1 : 0;
    }
    return exceeding;
  }

  UserShare::Clock::time_point now_{1000s};
  UserShare share_;
};

TEST_F(OfferRateTest, ABurstAndASteadyRateAreWithinTheLimit) {
  EXPECT_EQ(excess(share_, 790), 0);
  EXPECT_EQ(excess(share_, 390), 0);
  now_ += 1s;
  EXPECT_EQ(excess(share_, 790), 0);
}

TEST_F(OfferRateTest, AFloodExceedsTheLimit) {
  excess(share_, 1500);
  const int second = excess(share_, 1500);
  EXPECT_NEAR(second, 1500 - 400, 2);
}

TEST(UserSharesTest, KnowsWhetherAnotherUserIsActive) {
  UserShares shares;
  const UserShare::Clock::time_point start{1000s};
  const auto alice = shares.of(1);
  const auto bob = shares.of(2);
  EXPECT_FALSE(shares.isOtherActive(*alice, start));
  shares.noteActivity(*alice, start);
  EXPECT_FALSE(shares.isOtherActive(*alice, start));
  EXPECT_TRUE(shares.isOtherActive(*bob, start));
  shares.noteActivity(*bob, start + 1s);
  shares.noteActivity(*bob, start + 2s);
  EXPECT_TRUE(shares.isOtherActive(*alice, start + 2s));
  // Alice's last activity is longer ago than that.
  EXPECT_FALSE(shares.isOtherActive(*bob, start + 2s));
  EXPECT_FALSE(shares.isOtherActive(*alice, start + 4s));
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
