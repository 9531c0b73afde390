#include "Platform/Linux/Services/Utf8.h"

#include <gtest/gtest.h>

namespace ostravel::linuxplatform {
namespace {

TEST(Utf8Test, TellsTheLengthOfTheFirstCharacter) {
  EXPECT_EQ(utf8CharacterLength("abc"), 1U);
  EXPECT_EQ(utf8CharacterLength("\xc3\xa9t\xc3\xa9"), 2U);
  EXPECT_EQ(utf8CharacterLength("\xe2\x82\xac"), 3U);
  EXPECT_EQ(utf8CharacterLength("\xf0\x9f\x98\x80!"), 4U);
  EXPECT_EQ(utf8CharacterLength(std::string_view("\0", 1)), 1U);
}

TEST(Utf8Test, TheLimitsOfTheRanges) {
  for (const char* const valid :
       {"\x7f", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
        "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_EQ(utf8CharacterLength(valid), std::string_view(valid).size()) << valid;
  }
}

TEST(Utf8Test, WhatIsNotACharacterHasNoLength) {
  for (const char* const invalid :
       {"", "\x80", "\xbf", "\xc0\x80", "\xc1\xbf", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xed\xbf\xbf",
        "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xff", "\xc3", "\xc3(",
        "\xe2\x82", "\xe2\x82(", "\xf0\x9f\x98", "\xf0\x9f\x98(", "\xe2(\xac"}) {
    EXPECT_EQ(utf8CharacterLength(invalid), 0U) << invalid;
  }
}

TEST(Utf8Test, ReplacesBadBytesOneByOne) {
  EXPECT_EQ(validUtf8("/opt/\xff\xfe/caf\xc3\xa9"), "/opt/\xef\xbf\xbd\xef\xbf\xbd/caf\xc3\xa9");
  EXPECT_EQ(validUtf8("\xe2\x82"), "\xef\xbf\xbd\xef\xbf\xbd");
  EXPECT_EQ(validUtf8("plain"), "plain");
  EXPECT_EQ(validUtf8(""), "");
}

}  // namespace
}  // namespace ostravel::linuxplatform
