#include "Base/CompactJson.h"

#include <gtest/gtest.h>

namespace ostravel {
namespace {

TEST(CompactJsonTest, RemovesWhiteSpaceOnlyBetweenTokens) {
  EXPECT_EQ(compactJson(" { \"a b\" :\n[ 1 ,\t2 ] ,\r\n\"c\":\" d \" } "),
            R"({"a b":[1,2],"c":" d "})");
}

TEST(CompactJsonTest, KeepsNumbersAsTheyWereSent) {
  EXPECT_EQ(compactJson("[1763271815.123, 1e3, 0.10]"), "[1763271815.123,1e3,0.10]");
}

TEST(CompactJsonTest, KeepsEscapesButThatOfTheSlash) {
  EXPECT_EQ(compactJson(R"(["a\/b","\"\\","\\/","\u001b","\n"])"),
            R"(["a/b","\"\\","\\/","\u001b","\n"])");
}

TEST(CompactJsonTest, EscapesWhatCouldDisturbATerminal) {
  EXPECT_EQ(compactJson("[\"\x7f\xc2\x9b\xe2\x80\xae\xc3\xa9\"]"),
            "[\"\\u007f\\u009b\\u202e\xc3\xa9\"]");
}

}  // namespace
}  // namespace ostravel
