#include "Base/UTF8.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace ostravel {
namespace {

using namespace std::string_view_literals;

TEST(UTF8Test, TakesTheFirstCodePoint) {
  EXPECT_EQ(firstCodePoint("abc").value, U'a');
  EXPECT_EQ(firstCodePoint("\xc3\xa9t\xc3\xa9").value, U'\u00e9');
  EXPECT_EQ(firstCodePoint("\xe2\x82\xac").value, U'\u20ac');
  EXPECT_EQ(firstCodePoint("\xf0\x9f\x98\x80!").value, U'\U0001f600');
  EXPECT_EQ(firstCodePoint(std::string_view("\0", 1)).value, U'\0');
}

TEST(UTF8Test, AcceptsTheLimitsOfTheRanges) {
  for (const std::string_view text :
       {"\x7f", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
        "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_TRUE(firstCodePoint(text).valid) << text;
    EXPECT_EQ(firstCodePoint(text).size, text.size()) << text;
    EXPECT_TRUE(isWellFormedUTF8(text)) << text;
  }
}

TEST(UTF8Test, TakesOneByteOfAnInvalidCharacter) {
  for (const std::string_view text : {"\x80",
                                      "\xbf",
                                      "\xc0\x80",
                                      "\xc1\xbf",
                                      "\xe0\x9f\xbf",
                                      "\xed\xa0\x80",
                                      "\xed\xbf\xbf",
                                      "\xf0\x8f\xbf\xbf",
                                      "\xf4\x90\x80\x80",
                                      "\xf5\x80\x80\x80",
                                      "\xf8\x88\x80\x80\x80",
                                      "\xfe",
                                      "\xff",
                                      "\xc3",
                                      "\xc3(",
                                      "\xe2\x82",
                                      "\xe2\x82(",
                                      "\xf0\x9f\x98",
                                      "\xf0\x9f\x98(",
                                      "\xe2(\xac"}) {
    EXPECT_FALSE(firstCodePoint(text).valid) << text;
    EXPECT_EQ(firstCodePoint(text).size, 1U) << text;
    EXPECT_FALSE(isWellFormedUTF8(text)) << text;
    EXPECT_FALSE(isWellFormedUTF8("before " + std::string(text) + " after")) << text;
  }
}

TEST(UTF8Test, TakesTheLastCodePoint) {
  EXPECT_EQ(lastCodePoint("abc").value, U'c');
  EXPECT_EQ(lastCodePoint("t\xc3\xa9").value, U'\u00e9');
  EXPECT_EQ(lastCodePoint("t\xe2\x82\xac").value, U'\u20ac');
  EXPECT_EQ(lastCodePoint("\xf0\x9f\x98\x80").value, U'\U0001f600');
  EXPECT_EQ(lastCodePoint("\xf0\x9f\x98\x80").size, 4U);
}

TEST(UTF8Test, TakesOneByteOfAnInvalidCharacterAtTheEnd) {
  for (const std::string_view text :
       {"a\x80", "\xc3\xa9\x80", "a\xc3", "\xe2\x82", "\xc0\xa0", "\xe0\x80\xa0", "\xff",
        "\x80\x80\x80\x80\x80", "\xf0\x9f\x98\x80\x80"}) {
    EXPECT_FALSE(lastCodePoint(text).valid) << text;
    EXPECT_EQ(lastCodePoint(text).size, 1U) << text;
  }
}

TEST(UTF8Test, LowercasesOnlyASCIILetters) {
  EXPECT_EQ(lowercasedASCII("AZaz@[`{09 \xc3\x84\xff"), "azaz@[`{09 \xc3\x84\xff");
  EXPECT_EQ(lowercasedASCII(""), "");
}

TEST(UTF8Test, TextOfValidCodePointsOnlyIsWellFormed) {
  for (const std::string_view text :
       {""sv, "HTTP/1.1 200 OK"sv, "\0"sv, "a\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80z"sv}) {
    EXPECT_TRUE(isWellFormedUTF8(text)) << text;
  }
}

}  // namespace
}  // namespace ostravel
