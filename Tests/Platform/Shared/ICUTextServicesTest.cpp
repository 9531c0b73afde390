#include "Platform/Shared/ICUTextServices.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace ostravel::platform {
namespace {

using namespace std::string_view_literals;

class ICUTextServicesTest : public testing::Test {
 protected:
  ICUTextServices text_;
};

TEST_F(ICUTextServicesTest, LowercasesASCIILettersOnly) {
  EXPECT_EQ(text_.lowercased("API.Example.COM-09_@[`{"), "api.example.com-09_@[`{");
}

TEST_F(ICUTextServicesTest, LowercasesAnEmptyText) {
  EXPECT_EQ(text_.lowercased(""), "");
}

TEST_F(ICUTextServicesTest, LowercasesBeyondASCII) {
  EXPECT_EQ(text_.lowercased("B\u00dcCHER.\u00c5SA \u0416\u0411 \U00010400"),
            "b\u00fccher.\u00e5sa \u0436\u0431 \U00010428");
}

TEST_F(ICUTextServicesTest, LowercasingMayMakeTheTextLonger) {
  EXPECT_EQ(text_.lowercased("\u0130"), "i\u0307");
}

TEST_F(ICUTextServicesTest, LowercasingConsidersTheWholeWord) {
  // A capital sigma at the end of a word becomes the final form.
  EXPECT_EQ(text_.lowercased("\u039f\u03a3 \u03a3\u039f"), "\u03bf\u03c2 \u03c3\u03bf");
}

TEST_F(ICUTextServicesTest, LowercasingDoesNotDependOnALanguage) {
  // Turkish would turn it into a dotless i.
  EXPECT_EQ(text_.lowercased("I\u00c4"), "i\u00e4");
}

TEST_F(ICUTextServicesTest, LowercasingKeepsBytesThatAreNotUTF8) {
  EXPECT_EQ(text_.lowercased("A\xff\xc3\x84\xc3"sv), "a\xff\xc3\xa4\xc3"sv);
  EXPECT_EQ(text_.lowercased("\xed\xa0\x80Q\xf4\x90\x80\x80"sv), "\xed\xa0\x80q\xf4\x90\x80\x80"sv);
}

TEST_F(ICUTextServicesTest, LowercasingKeepsNULBytes) {
  EXPECT_EQ(text_.lowercased("A\0B"sv), "a\0b"sv);
  EXPECT_EQ(text_.lowercased("A\0\u00c4"sv), "a\0\u00e4"sv);
}

TEST_F(ICUTextServicesTest, TrimsASCIIWhiteSpaceAtBothEnds) {
  EXPECT_EQ(text_.trimmed(" \t\n\v\f\r com.example app \r\n"), "com.example app");
}

TEST_F(ICUTextServicesTest, TrimsEveryWhiteSpaceCharacter) {
  const std::vector<std::string> kWhiteSpace = {"\u0085", "\u00a0", "\u1680", "\u2000", "\u2001",
                                                "\u2002", "\u2003", "\u2004", "\u2005", "\u2006",
                                                "\u2007", "\u2008", "\u2009", "\u200a", "\u2028",
                                                "\u2029", "\u202f", "\u205f", "\u3000"};
  for (const auto& space : kWhiteSpace) {
    const std::string padded = space + "\u00e9" + space + "x" + space + " " + space;
    EXPECT_EQ(text_.trimmed(padded), "\u00e9" + space + "x") << testing::PrintToString(space);
  }
}

TEST_F(ICUTextServicesTest, DoesNotTrimWhatOnlyLooksEmpty) {
  // Zero width space, zero width no-break space, a control character, NUL.
  for (const auto text : {"\u200bx\u200b"sv, "\ufeffx\ufeff"sv, "\x1fx\x1f"sv, "\0x\0"sv}) {
    EXPECT_EQ(text_.trimmed(text), text);
  }
}

TEST_F(ICUTextServicesTest, TrimsTextOfWhiteSpaceOnlyToNothing) {
  EXPECT_TRUE(text_.trimmed(" \u2003\n\u3000").empty());
  EXPECT_TRUE(text_.trimmed("").empty());
}

TEST_F(ICUTextServicesTest, TrimsEachEndByItself) {
  EXPECT_EQ(text_.trimmed("a b"), "a b");
  EXPECT_EQ(text_.trimmed("a b "), "a b");
  EXPECT_EQ(text_.trimmed(" a b"), "a b");
  EXPECT_EQ(text_.trimmed("a b\u3000"), "a b");
  EXPECT_EQ(text_.trimmed("\u3000a b"), "a b");
}

TEST_F(ICUTextServicesTest, TrimmingReturnsAPartOfItsArgument) {
  const std::string text = "  x ";
  EXPECT_EQ(text_.trimmed(text).data(), text.data() + 2);
}

TEST_F(ICUTextServicesTest, TrimmingStopsAtBytesThatAreNotUTF8) {
  EXPECT_EQ(text_.trimmed(" \x80 x \xff "sv), "\x80 x \xff"sv);
  // Cut-off and lone parts of what would be white space.
  EXPECT_EQ(text_.trimmed("\xe2\x80"sv), "\xe2\x80"sv);
  EXPECT_EQ(text_.trimmed("\x80\xa8"sv), "\x80\xa8"sv);
  EXPECT_EQ(text_.trimmed("\xa0"sv), "\xa0"sv);
}

}  // namespace
}  // namespace ostravel::platform
