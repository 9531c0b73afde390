#include "Platform/Linux/Services/SharedBudget.h"

#include <gtest/gtest.h>

#include <memory>
#include <utility>
#include <vector>

#include "Platform/Linux/Services/MemoryBudget.h"

namespace ostravel::linuxplatform::test {
namespace {

class SharedBudgetTest : public ::testing::Test {
 protected:
  // Takes one at a time while permitted; returns how many.
  std::size_t takeAll(const Reference<UserShare>& share) {
    std::size_t count = 0;
    while (budget_.isWithinShare(*share, 1)) {
      leases_.push_back(budget_.lease(1, share));
      ++count;
    }
    return count;
  }

  SharedBudget budget_{120, &UserShare::descriptors};
  std::vector<SharedBudget::Lease> leases_;
  const Reference<UserShare> alice_ = makeReference<UserShare>();
  const Reference<UserShare> bob_ = makeReference<UserShare>();
};

TEST_F(SharedBudgetTest, ASingleUserGetsHalf) {
  EXPECT_EQ(takeAll(alice_), 60U);
  EXPECT_EQ(budget_.unused(), 60U);
}

TEST_F(SharedBudgetTest, ALaterUserGetsHalfOfTheRemainder) {
  takeAll(alice_);
  EXPECT_EQ(takeAll(bob_), 30U);
  EXPECT_EQ(takeAll(makeReference<UserShare>()), 15U);
}

TEST_F(SharedBudgetTest, UsersWhoAlternateGetEqualShares) {
  bool isTaken = true;
  while (isTaken) {
    isTaken = false;
    for (const auto& share : {alice_, bob_}) {
      if (budget_.isWithinShare(*share, 1)) {
        leases_.push_back(budget_.lease(1, share));
        isTaken = true;
      }
    }
  }
  EXPECT_EQ(alice_->descriptors(), 40U);
  EXPECT_EQ(bob_->descriptors(), 40U);
}

TEST_F(SharedBudgetTest, AReturnedAmountIsFree) {
  takeAll(alice_);
  leases_.clear();
  EXPECT_EQ(alice_->descriptors(), 0U);
  EXPECT_EQ(budget_.inUse(), 0U);
  EXPECT_EQ(takeAll(alice_), 60U);
}

TEST_F(SharedBudgetTest, ALeaseCanBeChargedToAnotherUser) {
  auto lease = budget_.lease(5);
  lease.chargeTo(alice_);
  EXPECT_EQ(alice_->descriptors(), 5U);
  lease.chargeTo(bob_);
  EXPECT_EQ(alice_->descriptors(), 0U);
  EXPECT_EQ(bob_->descriptors(), 5U);
  EXPECT_EQ(budget_.inUse(), 5U);
  auto moved = std::move(lease);
  lease.chargeTo(alice_);
  EXPECT_EQ(alice_->descriptors(), 0U);
  moved = SharedBudget::Lease();
  EXPECT_EQ(bob_->descriptors(), 0U);
  EXPECT_EQ(budget_.inUse(), 0U);
}

TEST_F(SharedBudgetTest, AShareEndsWithItsLastLease) {
  const auto share = makeReference<UserShare>();
  auto lease = budget_.lease(1, share);
  EXPECT_EQ(share.count(), 2U);
  lease = SharedBudget::Lease();
  EXPECT_EQ(share.count(), 1U);
}

TEST_F(SharedBudgetTest, MoreThanTheLimitMayBeInUse) {
  const auto lease = budget_.lease(200);
  EXPECT_EQ(budget_.unused(), 0U);
  EXPECT_FALSE(budget_.isWithinShare(*alice_, 1));
}

TEST(MemoryBudgetTest, WithoutAUserPermitsTheUnusedAmount) {
  MemoryBudget budget(100);
  EXPECT_TRUE(budget.permits(nullptr, 100));
  EXPECT_FALSE(budget.permits(nullptr, 101));
  const auto share = makeReference<UserShare>();
  const auto lease = budget.lease(50, share);
  EXPECT_EQ(share->memory(), 50U);
  EXPECT_FALSE(budget.permits(share, 1));
  EXPECT_TRUE(budget.permits(makeReference<UserShare>(), 50));
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
