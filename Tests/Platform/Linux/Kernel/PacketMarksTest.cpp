#include "Platform/Linux/Kernel/PacketMarks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <set>

namespace ostravel::linuxplatform {
namespace {

TEST(PacketMarksTest, EveryValueIsDifferentAndWithinTheMask) {
  for (const std::uint32_t mask : {0x3e000000U, 0x7U, 0xe0000000U, 0x70U, 0xffffffffU}) {
    const auto marks = PacketMarks::fromMask(mask);
    ASSERT_TRUE(marks) << mask;
    EXPECT_EQ(marks->mask(), mask);
    std::set<std::uint32_t> values{0, marks->own(), marks->refuse()};
    const unsigned loops = std::min(marks->maximumEventLoops(), 100U);
    for (unsigned loop = 0; loop < loops; ++loop) {
      values.insert(marks->redirect(loop));
    }
    EXPECT_EQ(values.size(), loops + 3);
    for (const std::uint32_t value : values) {
      EXPECT_EQ(value & ~mask, 0U);
    }
  }
}

TEST(PacketMarksTest, TheWholeMaskIsUsed) {
  EXPECT_EQ(PacketMarks::fromMask(0x7)->maximumEventLoops(), 5U);
  EXPECT_EQ(PacketMarks().maximumEventLoops(), 29U);
  EXPECT_EQ(PacketMarks().redirect(28), PacketMarks().mask());
}

TEST(PacketMarksTest, TheDefaultIsAMask) {
  EXPECT_EQ(PacketMarks::fromMask(PacketMarks::kDefaultMask), PacketMarks());
}

TEST(PacketMarksTest, AMaskIsOneRunOfAtLeastThreeBits) {
  for (const std::uint32_t mask :
       {0U, 1U, 0x3U, 0x80000000U, 0x0c000000U, 0xbU, 0xf0f0U, 0x80000001U, 0xefffffffU}) {
    EXPECT_FALSE(PacketMarks::fromMask(mask)) << mask;
  }
}

}  // namespace
}  // namespace ostravel::linuxplatform
