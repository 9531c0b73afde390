#include "Base/ParseNumber.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string_view>

namespace ostravel {
namespace {

TEST(ParseNumberTest, ReadsTheDigitsOfTheBase) {
  EXPECT_EQ(parseNumber<unsigned>("0"), 0U);
  EXPECT_EQ(parseNumber<unsigned>("0042"), 42U);
  EXPECT_EQ(parseNumber<unsigned>("660", 8), 0660U);
  EXPECT_EQ(parseNumber<unsigned>("3e", 16), 0x3eU);
  EXPECT_EQ(parseNumber<int>("-5"), -5);
}

TEST(ParseNumberTest, ReadsNothingButANumber) {
  for (const std::string_view text : {"", " 1", "1 ", "+1", "1x", "0x1", "1\n", "x", "-"}) {
    EXPECT_EQ(parseNumber<unsigned>(text), std::nullopt) << text;
  }
  EXPECT_EQ(parseNumber<unsigned>("-1"), std::nullopt);
  EXPECT_EQ(parseNumber<unsigned>("8", 8), std::nullopt);
}

TEST(ParseNumberTest, TheTypeLimitsTheNumber) {
  EXPECT_EQ(parseNumber<std::uint16_t>("65535"), 65535);
  EXPECT_EQ(parseNumber<std::uint16_t>("65536"), std::nullopt);
}

}  // namespace
}  // namespace ostravel
