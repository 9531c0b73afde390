#include "Companion/Shared/ColumnText.h"

#include <gtest/gtest.h>

namespace ostravel::companion::test {
namespace {

TEST(ColumnTextTest, CountsCodePoints) {
  EXPECT_EQ(columnsOf(""), 0U);
  EXPECT_EQ(columnsOf("µs…"), 3U);
  EXPECT_EQ(columnsOf("a\xff"), 2U);
}

TEST(ColumnTextTest, PadsAndTrims) {
  EXPECT_EQ(padded("µ", 3), "µ  ");
  EXPECT_EQ(padded("long", 3), "long");
  EXPECT_EQ(withoutTrailingBlanks("a b  "), "a b");
  EXPECT_EQ(withoutTrailingBlanks("  "), "");
}

TEST(ColumnTextTest, CutsAtEitherEnd) {
  EXPECT_EQ(cutAtEnd("example", 7), "example");
  EXPECT_EQ(cutAtEnd("example", 4), "exa…");
  EXPECT_EQ(cutAtBeginning("example.org:443", 8), "…org:443");
  EXPECT_EQ(cutAtEnd("example", 1), "…");
  EXPECT_EQ(cutAtEnd("example", 0), "");
  EXPECT_EQ(cutAtBeginning("example", 0), "");
  EXPECT_EQ(firstColumns("µs", 1), "µ");
}

TEST(ColumnTextTest, NamesAProgramByItsFile) {
  EXPECT_EQ(lastPathComponent("/usr/bin/curl"), "curl");
  EXPECT_EQ(lastPathComponent("com.example"), "com.example");
  EXPECT_EQ(lastPathComponent("/usr/"), "/usr/");
}

TEST(ColumnTextTest, SharesTheRoomOfATerminal) {
  EXPECT_EQ(applicationWidthIn(0), 8U);
  EXPECT_EQ(applicationWidthIn(kDestinationWidth + 15), 15U);
  EXPECT_EQ(applicationWidthIn(200), kApplicationWidth);
}

}  // namespace
}  // namespace ostravel::companion::test
