#include "Companion/Control/TopText.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "Base/JSONHandle.h"
#include "Base/UTF8.h"

namespace ostravel::companion {
namespace {

std::size_t columnsOf(const std::string& line) {
  return static_cast<std::size_t>(std::ranges::count_if(
      line, [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U; }));
}

TopHistory busyHistory() {
  TopHistory history;
  const JSONHandle status(json_loads(
      R"({"proxying":{"active":true,"message":"New connections are proxied by tinyproxy (process 7, user tinyproxy)."},
          "gate":{"state":"open"},"program":{"now":5},"handshakes":{"pending_now":3},
          "tunnels":{"now":9}})",
      0, nullptr));
  const JSONHandle tunnels(json_loads(
      R"({"tunnels":[{"application":"/opt/a-very-long-path/that-goes-on/and-on/to-the/program","outcome":"established",
                      "bytes_sent":123456789,"bytes_received":5}]})",
      0, nullptr));
  for (int count = 0; count < 300; ++count) {
    history.add(status.get(), tunnels.get(), nullptr);
  }
  return history;
}

TEST(TopTextTest, FitsEverySize) {
  const TopHistory history = busyHistory();
  for (const bool hasBlocks : {true, false}) {
    for (const std::size_t width : {20U, 40U, 80U, 200U, 500U}) {
      for (const std::size_t height : {1U, 5U, 24U, 100U}) {
        const auto lines = TopText(hasBlocks).lines(history, width, height);
        EXPECT_LE(lines.size(), height);
        for (const auto& line : lines) {
          EXPECT_LE(columnsOf(line), width);
          EXPECT_TRUE(isWellFormedUTF8(line));
        }
      }
    }
  }
}

TEST(TopTextTest, KeepsTheEndOfALongName) {
  const auto lines = TopText(true).lines(busyHistory(), 80, 24);
  ASSERT_EQ(lines.size(), 9U);
  EXPECT_EQ(lines[0].substr(0, 24), "New connections are prox");
  EXPECT_NE(lines[8].find("to-the/program"), std::string::npos);
  EXPECT_NE(lines[8].find("118 MiB"), std::string::npos);
}

TEST(TopTextTest, DrawsBarsRelativeToTheLargest) {
  EXPECT_EQ(TopText(true).graph({0, 1, 4, 8}), " ▁▄█");
  EXPECT_EQ(TopText(false).graph({0, 8}), " #");
  EXPECT_EQ(TopText(true).graph({0.001, 1000}), "▁█");
  EXPECT_EQ(TopText(true).graph({0, 0}), "  ");
  EXPECT_EQ(TopText(true).graph({}), "");
}

TEST(TopTextTest, ShowsAnEmptyHistory) {
  EXPECT_FALSE(TopText(true).lines(TopHistory(), 80, 24).empty());
}

}  // namespace
}  // namespace ostravel::companion
