#include "Base/DescriptorLimit.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace ostravel {
namespace {

TEST(DescriptorLimitTest, RaisesTheSoftLimitToTheHardOne) {
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = limit.rlim_max / 2;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(raiseDescriptorLimit(), limit.rlim_max);
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(limit.rlim_cur, limit.rlim_max);
}

}  // namespace
}  // namespace ostravel
