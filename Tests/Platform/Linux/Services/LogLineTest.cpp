#include "Platform/Linux/Services/LogLine.h"

#include <gtest/gtest.h>

#include <array>

namespace ostravel::linuxplatform {
namespace {

TEST(LogLineTest, KeepsTextOfAnyLanguage) {
  EXPECT_EQ(printable("Verbindung getrennt \xe2\x80\x93 \xe6\x8e\xa5\xe7\xb6\x9a \\ ~"),
            "Verbindung getrennt \xe2\x80\x93 \xe6\x8e\xa5\xe7\xb6\x9a \\ ~");
}

TEST(LogLineTest, ControlCharactersAreShown) {
  EXPECT_EQ(printable(std::string_view("a\nb\r\t\0\x1b[2J\x7f", 11)),
            "a\\x0ab\\x0d\\x09\\x00\\x1b[2J\\x7f");
  // CSI as one C1 control, and the first character after the controls.
  EXPECT_EQ(printable("\xc2\x9b"
                      "2J\xc2\xa0"),
            "\\xc2\\x9b"
            "2J\xc2\xa0");
}

TEST(LogLineTest, BytesThatAreNotUtf8AreShown) {
  EXPECT_EQ(printable("x\x9by\xff"), "x\\x9by\\xff");
}

TEST(LogLineTest, ArgumentsReplaceThePlaceholdersAndCannotForgeALine) {
  const std::array<platform::LogArgument, 2> arguments{
      std::string_view("reset\n2026-01-01T00:00:00.000Z error   forged"), std::int64_t{-5}};
  EXPECT_EQ(printableLogLine("OstravelProxy: %{public}s after %{public}d tries", arguments),
            "OstravelProxy: reset\\x0a2026-01-01T00:00:00.000Z error   forged after -5 tries");
}

TEST(LogLineTest, DroppedLinesAreCounted) {
  EXPECT_EQ(droppedLinesText(12), "OstravelProxy: Log lines dropped count=12");
}

}  // namespace
}  // namespace ostravel::linuxplatform
