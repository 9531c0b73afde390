#include "Platform/Linux/Kernel/QueueCounters.h"

#include <gtest/gtest.h>

namespace ostravel::linuxplatform {
namespace {

constexpr auto* kText =
    "18432   4711     3 2   128     7     2      900  1\n"
    "18433   4712     0 2   128     0     0        1  1\n";

TEST(QueueCountersTest, FindsTheQueue) {
  const auto counters = QueueCounters::parse(kText, 18432);
  ASSERT_TRUE(counters);
  EXPECT_EQ(counters->waiting, 3U);
  EXPECT_EQ(counters->dropped, 7U);
  EXPECT_EQ(counters->userDropped, 2U);
}

TEST(QueueCountersTest, IsEmptyWithoutTheQueue) {
  EXPECT_FALSE(QueueCounters::parse(kText, 1));
  EXPECT_FALSE(QueueCounters::parse("", 18432));
  EXPECT_FALSE(QueueCounters::parse("18432 4711 x\n", 18432));
}

}  // namespace
}  // namespace ostravel::linuxplatform
