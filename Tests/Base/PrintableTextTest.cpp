#include "Base/PrintableText.h"

#include <gtest/gtest.h>

#include <string>

namespace ostravel {
namespace {

TEST(PrintableTextTest, LeavesOrdinaryTextAlone) {
  EXPECT_EQ(printableText("plain text, \xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"),
            "plain text, \xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80");
}

TEST(PrintableTextTest, EscapesControlCharacters) {
  EXPECT_EQ(printableText("\x1b[31m\r\n\t\x7f" + std::string(1, '\0')),
            "\\x1b[31m\\r\\n\\t\\x7f\\x00");
  EXPECT_EQ(printableText("\xc2\x9b"), "\\u009b");
  // The first character after the controls.
  EXPECT_EQ(printableText("\xc2\xa0"), "\xc2\xa0");
}

TEST(PrintableTextTest, EscapesWhatReversesOrBreaksALine) {
  EXPECT_EQ(printableText("\xe2\x80\xae\xe2\x80\xa8\xe2\x81\xa6"), "\\u202e\\u2028\\u2066");
}

TEST(PrintableTextTest, EscapesBytesThatAreNotUTF8) {
  EXPECT_EQ(printableText("\xff"), "\\xff");
  EXPECT_EQ(printableText("\xc0\x9b"), "\\xc0\\x9b");           // a longer form of ESC
  EXPECT_EQ(printableText("\xe0\x80\x9b"), "\\xe0\\x80\\x9b");  // an even longer one
  EXPECT_EQ(printableText("\xed\xa0\x80"), "\\xed\\xa0\\x80");  // half a surrogate pair
  EXPECT_EQ(printableText("\xe2\x82"), "\\xe2\\x82");           // cut short
  EXPECT_EQ(printableText("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");
}

TEST(PrintableTextTest, ACharacterIsEscapedWhereverItIs) {
  constexpr std::size_t kSize = 20;
  for (int value = 0; value < 256; ++value) {
    const auto character = static_cast<char>(value);
    const std::string escaped = printableText(std::string(1, character));
    EXPECT_EQ(escaped.size() == 1, value >= 0x20 && value < 0x7f && character != '\\') << value;
    for (std::size_t place = 0; place < kSize; ++place) {
      std::string text(kSize, '~');
      text[place] = character;
      std::string expected(place, '~');
      expected.append(escaped).append(kSize - 1 - place, '~');
      EXPECT_EQ(printableText(text), expected) << value << " at " << place;
    }
  }
}

TEST(PrintableTextTest, IsAppended) {
  std::string text = "one\n";
  appendPrintableText(text, "two\n");
  EXPECT_EQ(text, "one\ntwo\\n");
}

TEST(PrintableTextTest, CannotBeForged) {
  EXPECT_EQ(printableText("\\n"), "\\\\n");
}

TEST(PrintableTextTest, QuotesValuesWhoseEndWouldBeUnclear) {
  EXPECT_EQ(printableValue("plain"), "plain");
  EXPECT_EQ(printableValue(""), "\"\"");
  EXPECT_EQ(printableValue("two words"), "\"two words\"");
  EXPECT_EQ(printableValue("x flow=y"), "\"x flow=y\"");
  EXPECT_EQ(printableValue("a\"b"), "\"a\\\"b\"");
}

}  // namespace
}  // namespace ostravel
