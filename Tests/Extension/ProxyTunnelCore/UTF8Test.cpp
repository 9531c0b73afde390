#include "Extension/ProxyTunnelCore/UTF8.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace ostravel {
namespace {

using namespace std::string_view_literals;

struct Case {
  const char* name;
  std::string_view text;
};

std::string caseName(const testing::TestParamInfo<Case>& info) {
  return info.param.name;
}

class WellFormedUTF8 : public testing::TestWithParam<Case> {};

TEST_P(WellFormedUTF8, IsAccepted) {
  EXPECT_TRUE(isWellFormedUTF8(GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(Text, WellFormedUTF8,
                         testing::Values(Case{"Empty", ""}, Case{"ASCII", "HTTP/1.1 200 OK"},
                                         Case{"Nul", "\0"sv}, Case{"HighestOneByte", "\x7F"},
                                         Case{"LowestTwoBytes", "\xC2\x80"},
                                         Case{"HighestTwoBytes", "\xDF\xBF"},
                                         Case{"LowestThreeBytes", "\xE0\xA0\x80"},
                                         Case{"LastBeforeSurrogates", "\xED\x9F\xBF"},
                                         Case{"FirstAfterSurrogates", "\xEE\x80\x80"},
                                         Case{"HighestThreeBytes", "\xEF\xBF\xBF"},
                                         Case{"LowestFourBytes", "\xF0\x90\x80\x80"},
                                         Case{"HighestCodePoint", "\xF4\x8F\xBF\xBF"},
                                         Case{"Mixture", "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80z"}),
                         caseName);

class IllFormedUTF8 : public testing::TestWithParam<Case> {};

TEST_P(IllFormedUTF8, IsRefused) {
  EXPECT_FALSE(isWellFormedUTF8(GetParam().text));
}

TEST_P(IllFormedUTF8, IsRefusedBetweenOtherText) {
  const std::string text = "before " + std::string(GetParam().text) + " behind";

  EXPECT_FALSE(isWellFormedUTF8(text));
}

INSTANTIATE_TEST_SUITE_P(
    Text, IllFormedUTF8,
    testing::Values(Case{"StrayContinuation", "\x80"}, Case{"StrayLastContinuation", "\xBF"},
                    Case{"OverlongTwoBytesC0", "\xC0\x80"}, Case{"OverlongTwoBytesC1", "\xC1\xBF"},
                    Case{"OverlongThreeBytes", "\xE0\x9F\xBF"},
                    Case{"OverlongFourBytes", "\xF0\x8F\xBF\xBF"},
                    Case{"FirstSurrogate", "\xED\xA0\x80"}, Case{"LastSurrogate", "\xED\xBF\xBF"},
                    Case{"FirstBeyondUnicode", "\xF4\x90\x80\x80"},
                    Case{"FiveByteForm", "\xF8\x88\x80\x80\x80"}, Case{"ByteFE", "\xFE"},
                    Case{"ByteFF", "\xFF"}, Case{"TwoBytesCutOff", "\xC3"},
                    Case{"ThreeBytesCutOffAtTwo", "\xE2\x82"},
                    Case{"FourBytesCutOffAtThree", "\xF0\x9F\x98"},
                    Case{"SecondByteIsNoContinuation", "\xC3\x28"},
                    Case{"ThirdByteIsNoContinuation", "\xE2\x82\x28"},
                    Case{"FourthByteIsNoContinuation", "\xF0\x9F\x98\x28"}),
    caseName);

}  // namespace
}  // namespace ostravel
