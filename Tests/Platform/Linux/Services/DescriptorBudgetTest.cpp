#include "Platform/Linux/Services/DescriptorBudget.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <utility>

namespace ostravel::linuxplatform::test {
namespace {

TEST(DescriptorBudgetTest, RaisesTheSoftLimitToTheHardOne) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit low{.rlim_cur = 512, .rlim_max = before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
  const DescriptorBudget budget;
  rlimit after{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &after), 0);
  EXPECT_EQ(after.rlim_cur, before.rlim_max);
  EXPECT_EQ(budget.limit(), before.rlim_max);
}

TEST(DescriptorBudgetTest, IsNearItsLimitWhenOnlyTheReserveIsLeft) {
  DescriptorBudget budget(limits::kDescriptorReserve + 10);
  const auto most = budget.lease(9);
  EXPECT_FALSE(budget.nearLimit());
  {
    const auto last = budget.lease(1);
    EXPECT_TRUE(budget.nearLimit());
  }
  EXPECT_FALSE(budget.nearLimit());
}

TEST(DescriptorBudgetTest, ALeaseIsReturnedOnce) {
  DescriptorBudget budget(1000);
  auto first = budget.lease(2);
  auto second = std::move(first);
  first = budget.lease(3);
  EXPECT_EQ(budget.inUse(), 5U);
  first = std::move(second);
  EXPECT_EQ(budget.inUse(), 2U);
  first = DescriptorBudget::Lease();
  EXPECT_EQ(budget.inUse(), 0U);
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
