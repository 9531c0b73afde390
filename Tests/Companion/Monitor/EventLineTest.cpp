#include "Companion/Monitor/EventLine.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

namespace ostravel::companion {
namespace {

class EventLineTest : public ::testing::Test {
 protected:
  EventLineTest() {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    event_.timestamp = 1763271815.123;
    event_.level = "info";
    event_.signal = "connect_handshake_started";
    event_.message = "Starting CONNECT handshake";
    event_.appId = "/usr/bin/curl";
  }
  ~EventLineTest() override {
    ::unsetenv("TZ");
    ::tzset();
  }

  ReceivedEvent event_;
};

TEST_F(EventLineTest, ShowsTimeLevelSignalAppAndDetailInColumns) {
  event_.details = {{"remote", "198.51.100.10:443"}};
  EXPECT_EQ(eventLine(event_, Colour::none),
            "05:43:35.123 info  connect_handshake_started     /usr/bin/curl              "
            "remote=198.51.100.10:443  Starting CONNECT handshake");
}

TEST_F(EventLineTest, QuotesADetailThatHasBlanks) {
  event_.details = {{"detail", "Connection reset by peer"}, {"pending_handshakes", "48"}};
  EXPECT_NE(eventLine(event_, Colour::none)
                .find(" detail=\"Connection reset by peer\" pending_handshakes=48  "),
            std::string::npos);
}

TEST_F(EventLineTest, KeepsTheColumnsAligned) {
  const std::size_t column = eventLine(event_, Colour::none).find("Starting");
  event_.level = "error";
  event_.signal = "x";
  event_.appId = "";
  const std::string line = eventLine(event_, Colour::none);
  EXPECT_EQ(line.find("Starting"), column);
  EXPECT_NE(line.find(" -  "), std::string::npos);
}

TEST_F(EventLineTest, ColoursOnlyTheLevel) {
  event_.level = "error";
  const std::string plain = eventLine(event_, Colour::none);
  std::string coloured = eventLine(event_, Colour::terminal);
  EXPECT_NE(coloured.find("\x1b[31merror\x1b[0m"), std::string::npos);
  coloured.erase(coloured.find("\x1b[31m"), 5);
  coloured.erase(coloured.find("\x1b[0m"), 4);
  EXPECT_EQ(coloured, plain);
}

TEST_F(EventLineTest, LetsNoControlCharacterThrough) {
  event_.level = "\x1b[1m";
  event_.signal = "\n";
  event_.appId = "\r";
  event_.message = "\x07";
  event_.details = {{"\x08", "\xc2\x9b"}};
  const std::string line = eventLine(event_, Colour::none);
  for (const char character : line) {
    EXPECT_GE(static_cast<unsigned char>(character), 0x20);
    EXPECT_LT(static_cast<unsigned char>(character), 0x7F);
  }
  EXPECT_TRUE(line.ends_with("\\x08=\\u009b  \\x07")) << line;
}

}  // namespace
}  // namespace ostravel::companion
