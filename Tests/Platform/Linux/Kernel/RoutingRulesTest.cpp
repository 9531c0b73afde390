#include "Platform/Linux/Kernel/RoutingRules.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "Tests/Platform/Linux/Support/NetworkFixture.h"
#include "Tests/Support/CommandOutput.h"

namespace ostravel::linuxplatform {
namespace {

using testing::outputOf;

constexpr PacketMarks kMarks;

RoutingRules only(std::uint32_t value, std::uint32_t mask) {
  return RoutingRules({{AddressFamily::ipv4, 100, value, mask}});
}

TEST(RoutingRulesTest, ReadsTheMarkRulesOfBothFamilies) {
  outputOf(
      "ip -4 rule add priority 100 fwmark 0x2000000/0xff000000 table main && "
      "ip -6 rule add priority 101 fwmark 0xca6c table main && "
      "ip -4 rule add priority 102 from 192.0.2.1 table main");
  const auto clashes = RoutingRules::read().clashesWith(*PacketMarks::fromMask(0x7fffffff));
  ASSERT_EQ(clashes.size(), 2U);
  EXPECT_TRUE(clashes[0].starts_with(
      "the routing rule of priority 100 (ip rule) for the mark 0x2000000/0xff000000 uses "))
      << clashes[0];
  EXPECT_TRUE(clashes[1].starts_with(
      "the routing rule of priority 101 (ip -6 rule) for the mark 0xca6c/0xffffffff uses "))
      << clashes[1];
}

TEST(RoutingRulesTest, NamesTheClashingRuleAndFreeBits) {
  const auto clashes = only(0x2000000, 0xff000000).clashesWith(kMarks);
  ASSERT_EQ(clashes.size(), 1U);
  EXPECT_EQ(clashes[0],
            "the routing rule of priority 100 (ip rule) for the mark 0x2000000/0xff000000 uses "
            "bits of our mask 0x3e000000: choose others with --mark-mask 0xf80000");
}

TEST(RoutingRulesTest, AValueOutsideTheMaskDoesNotClash) {
  EXPECT_TRUE(only(0xca6c, 0xffffffff).clashesWith(kMarks).empty());
  EXPECT_TRUE(only(0x1, 0x1).clashesWith(kMarks).empty());
  EXPECT_TRUE(only(0, 0xff).clashesWith(kMarks).empty());
}

TEST(RoutingRulesTest, ARuleForPacketsWithoutOurBitsClashes) {
  EXPECT_EQ(only(0, 0xffffffff).clashesWith(kMarks).size(), 1U);
}

TEST(RoutingRulesTest, ProposesFreeBits) {
  const RoutingRules rules({{AddressFamily::ipv4, 1, 0x6d6f6c65, 0xffffffff},
                            {AddressFamily::ipv6, 2, 0x80000, 0xff0000}});
  const auto clashes = rules.clashesWith(kMarks);
  ASSERT_EQ(clashes.size(), 1U);
  const std::string option = "--mark-mask ";
  const auto at = clashes[0].find(option);
  ASSERT_NE(at, std::string::npos);
  const auto mask = std::stoul(clashes[0].substr(at + option.size()), nullptr, 16);
  const auto marks = PacketMarks::fromMask(static_cast<std::uint32_t>(mask));
  ASSERT_TRUE(marks);
  EXPECT_TRUE(rules.clashesWith(*marks).empty());
}

TEST(RoutingRulesTest, ReportsThatNoBitsAreFree) {
  const auto clashes = only(0xffffffff, 0xffffffff).clashesWith(kMarks);
  ASSERT_EQ(clashes.size(), 1U);
  EXPECT_NE(clashes[0].find("no other bits are free"), std::string::npos);
}

}  // namespace
}  // namespace ostravel::linuxplatform
