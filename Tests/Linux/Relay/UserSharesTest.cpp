#include "Platform/Linux/UserShares.h"

#include <gtest/gtest.h>

#include <vector>

namespace ostravel::linuxplatform::test {
namespace {

TEST(UserSharesTest, EveryUserHasOneShare) {
  UserShares shares;
  EXPECT_EQ(shares.of(1000), shares.of(1000));
  EXPECT_NE(shares.of(1000), shares.of(1001));
  EXPECT_NE(shares.of(0), shares.of(std::nullopt));
  EXPECT_EQ(shares.of(std::nullopt), shares.of(std::nullopt));
}

TEST(UserSharesTest, WhoeverUsesNothingIsForgottenWhenThereAreMany) {
  UserShares shares;
  const auto held = shares.of(1);
  held->holdBegan();
  const auto referenced = shares.of(2);
  shares.of(3)->handshakeTimedOut();
  for (uid_t user = 100'000; user < 200'000; ++user) {
    shares.of(user);
  }
  EXPECT_LE(shares.size(), 2 * UserShares::kManyUsers);
  EXPECT_EQ(shares.of(1), held);
  EXPECT_EQ(shares.of(2), referenced);
  EXPECT_TRUE(shares.of(3)->isOnTrial());
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
