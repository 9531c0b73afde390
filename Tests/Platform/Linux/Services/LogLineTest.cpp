#include "Platform/Linux/Services/LogLine.h"

#include <gtest/gtest.h>

#include <array>

namespace ostravel::linuxplatform {
namespace {

TEST(LogLineTest, ControlCharactersAreShown) {
  const std::array<platform::LogArgument, 1> arguments{std::string_view("a\x1b[2J\x9b")};
  EXPECT_EQ(printableLogLine("%{public}s", arguments), "a\\x1b[2J\\x9b");
}

TEST(LogLineTest, ArgumentsReplaceThePlaceholdersAndCannotForgeALine) {
  const std::array<platform::LogArgument, 2> arguments{
      std::string_view("reset\n2026-01-01T00:00:00.000Z error   forged"), std::int64_t{-5}};
  EXPECT_EQ(printableLogLine("OstravelProxy: %{public}s after %{public}d tries", arguments),
            "OstravelProxy: reset\\n2026-01-01T00:00:00.000Z error   forged after -5 tries");
}

TEST(LogLineTest, WithoutArgumentsIsItsFormat) {
  EXPECT_EQ(printableLogLine("OstravelProxy: Handshake successful.", {}),
            "OstravelProxy: Handshake successful.");
  EXPECT_EQ(printableLogLine("100 %\n", {}), "100 %\\n");
  EXPECT_EQ(printableLogLine("a %{public}s b\\", {}), "a  b\\\\");
}

TEST(LogLineTest, IsAppended) {
  std::string text = "info ";
  appendPrintableLogLine(text, "one\t", {});
  EXPECT_EQ(text, "info one\\t");
}

TEST(LogLineTest, DroppedLinesAreCounted) {
  EXPECT_EQ(droppedLinesText(12), "OstravelProxy: Log lines dropped count=12");
}

}  // namespace
}  // namespace ostravel::linuxplatform
