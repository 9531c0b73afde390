#include "Companion/Fleet/RecentIds.h"

#include <gtest/gtest.h>

namespace ostravel::companion::test {
namespace {

TEST(RecentIdsTest, NoticesRepeatedIds) {
  RecentIds ids(10);
  EXPECT_TRUE(ids.add("a"));
  EXPECT_TRUE(ids.add("b"));
  EXPECT_FALSE(ids.add("a"));
}

TEST(RecentIdsTest, ForgetsTheOldestOne) {
  RecentIds ids(2);
  EXPECT_TRUE(ids.add("a"));
  EXPECT_TRUE(ids.add("b"));
  EXPECT_TRUE(ids.add("c"));
  EXPECT_FALSE(ids.add("b"));
  EXPECT_FALSE(ids.add("c"));
  EXPECT_TRUE(ids.add("a"));
}

}  // namespace
}  // namespace ostravel::companion::test
