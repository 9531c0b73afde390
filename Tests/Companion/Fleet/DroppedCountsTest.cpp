#include "Companion/Fleet/DroppedCounts.h"

#include <gtest/gtest.h>

namespace ostravel::companion::test {
namespace {

TEST(DroppedCountsTest, TellsOfWhatAMachineDroppedBefore) {
  DroppedCounts counts(10);
  const auto change = counts.add("a", 7);
  EXPECT_EQ(change.before, 7U);
  EXPECT_EQ(change.since, 0U);
}

TEST(DroppedCountsTest, TellsOnlyWhatIsNew) {
  DroppedCounts counts(10);
  counts.add("a", 7);
  EXPECT_EQ(counts.add("a", 7).since, 0U);
  EXPECT_EQ(counts.add("a", 9).since, 2U);
  EXPECT_EQ(counts.add("a", 9).before, 0U);
}

// Its spool was removed.
TEST(DroppedCountsTest, FollowsATotalThatStartsAgain) {
  DroppedCounts counts(10);
  counts.add("a", 7);
  EXPECT_EQ(counts.add("a", 0).since, 0U);
  EXPECT_EQ(counts.add("a", 3).since, 3U);
}

TEST(DroppedCountsTest, KeepsAsManyMachinesAsItMay) {
  DroppedCounts counts(2);
  counts.add("a", 1);
  EXPECT_FALSE(counts.add("b", 1).isRestart);
  EXPECT_FALSE(counts.add("a", 2).isRestart);
  EXPECT_EQ(counts.add("b", 4).since, 3U);
}

TEST(DroppedCountsTest, StartsAgainWithOneMachineTooMany) {
  DroppedCounts counts(2);
  counts.add("a", 1);
  counts.add("b", 1);
  EXPECT_TRUE(counts.add("c", 5).isRestart);
  // There is room again, and nothing is counted twice.
  const auto change = counts.add("a", 3);
  EXPECT_FALSE(change.isRestart);
  EXPECT_EQ(change.before, 0U);
  EXPECT_EQ(change.since, 0U);
  EXPECT_EQ(counts.add("a", 4).since, 1U);
  EXPECT_EQ(counts.add("c", 7).since, 2U);
}

}  // namespace
}  // namespace ostravel::companion::test
