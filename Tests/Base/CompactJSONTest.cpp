#include "Base/CompactJSON.h"

#include <gtest/gtest.h>

namespace ostravel {
namespace {

TEST(CompactJSONTest, RemovesWhiteSpaceOnlyBetweenTokens) {
  EXPECT_EQ(compactJSON(" { \"a b\" :\n[ 1 ,\t2 ] ,\r\n\"c\":\" d \" } "),
            R"({"a b":[1,2],"c":" d "})");
}

TEST(CompactJSONTest, KeepsNumbersAsTheyWereSent) {
  EXPECT_EQ(compactJSON("[1763271815.123, 1e3, 0.10]"), "[1763271815.123,1e3,0.10]");
}

TEST(CompactJSONTest, KeepsEscapesExceptThoseOfSlashes) {
  EXPECT_EQ(compactJSON(R"(["a\/b","\"\\","\\/","\u001b","\n"])"),
            R"(["a/b","\"\\","\\/","\u001b","\n"])");
}

TEST(CompactJSONTest, EscapesWhatCouldDisturbATerminal) {
  EXPECT_EQ(compactJSON("[\"\x7f\xc2\x9b\xe2\x80\xae\xc3\xa9\"]"),
            "[\"\\u007f\\u009b\\u202e\xc3\xa9\"]");
}

}  // namespace
}  // namespace ostravel
