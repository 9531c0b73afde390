#include "Companion/Monitor/EventLine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Base/UTF8.h"
#include "Tests/Companion/Events/EventMaker.h"

namespace ostravel::companion {
namespace {

using Details = std::vector<std::pair<std::string, std::string>>;

class EventLineTest : public ::testing::Test {
 protected:
  static constexpr double kStart = 1763271815.123;

  EventLineTest() {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
  }
  ~EventLineTest() override {
    ::unsetenv("TZ");
    ::tzset();
  }

  static ReceivedEvent event(const std::string& level, const std::string& signal, double seconds,
                             Details details) {
    ReceivedEvent event = test::flowEvent("", signal, 0.0, std::move(details), level);
    event.timestamp = kStart + seconds;
    event.appId = "";
    return event;
  }

  std::string line(ReceivedEvent event) { return eventLine(event, nullptr, style_); }

  std::string flowLine(const std::string& level, const std::string& signal, double seconds,
                       Details details) {
    ReceivedEvent made = event(level, signal, seconds, std::move(details));
    made.flowId = "D7A6D6B1-53C9-4E54-8E4C-7D0D53E0F2F4";
    made.appId = application_;
    const FlowRecord* const flow = flows_.apply(made);
    return eventLine(made, flow, style_);
  }

  std::string begin() {
    return flowLine("info", "connect_handshake_started", 0.0, {{"remote", destination_}});
  }

  std::string application_ = "/usr/bin/curl";
  std::string destination_ = "198.51.100.10:443";
  EventLineStyle style_;
  FlowHistory flows_;
};

TEST_F(EventLineTest, NamesApplicationAndDestinationInEveryLine) {
  EXPECT_EQ(begin(),
            "05:43:35.123 info  D7A6D6B1 connecting          /usr/bin/curl              "
            "198.51.100.10:443");
  EXPECT_EQ(flowLine("info", "connect_handshake_succeeded", 0.002,
                     {{"elapsed_ms", "1.25"}, {"leftover_bytes", "0"}}),
            "05:43:35.125 info  D7A6D6B1 connected 1.25 ms   /usr/bin/curl              "
            "198.51.100.10:443");
  application_ = "";
  EXPECT_EQ(flowLine("info", "tunnel_closed", 4.07, {{"detail", "eof"}}),
            "05:43:39.193 info  D7A6D6B1 closed 4.07 s       /usr/bin/curl              "
            "198.51.100.10:443");
}

TEST_F(EventLineTest, RepeatsARefusalInsteadOfItsEndOfStream) {
  begin();
  EXPECT_EQ(flowLine("error", "connect_handshake_rejected", 0.5,
                     {{"status_line", "HTTP/1.1 403 Forbidden"}}),
            "05:43:35.623 error D7A6D6B1 refused 500 ms      /usr/bin/curl              "
            "198.51.100.10:443       HTTP/1.1 403 Forbidden");
  EXPECT_EQ(flowLine("info", "tunnel_closed", 0.5, {{"detail", "eof"}}),
            "05:43:35.623 info  D7A6D6B1 ended: refused      /usr/bin/curl              "
            "198.51.100.10:443");
}

TEST_F(EventLineTest, ReportsTheOutcomeOfAFlow) {
  const auto after = [this](const std::string& level, const std::string& signal, double seconds,
                            Details details) {
    flows_ = FlowHistory();
    begin();
    return flowLine(level, signal, seconds, std::move(details)).substr(19 + 9, 20);
  };
  EXPECT_EQ(after("error", "connect_handshake_timed_out", 5.0, {{"timeout_seconds", "5"}}),
            "timed out 5.00 s    ");
  EXPECT_EQ(after("error", "connect_handshake_invalid", 1.0, {{"reason", "x"}}),
            "invalid answer      ");
  EXPECT_EQ(after("error", "connect_handshake_write_failed", 1.0, {{"detail", "Broken pipe"}}),
            "write failed        ");
  EXPECT_EQ(after("error", "connect_handshake_read_failed", 1.0, {{"detail", "x"}}),
            "read failed         ");
  EXPECT_EQ(after("error", "tunnel_closed", 0.02, {{"detail", "Connection refused"}}),
            "failed 20.0 ms      ");
  EXPECT_EQ(after("info", "tunnel_closed", 0.02, {{"detail", "eof"}}), "closed unanswered   ");
  EXPECT_EQ(after("info", "a_signal_of_tomorrow", 0.0, {}).substr(0, 20), "a_signal_of_tomorrow");
}

TEST_F(EventLineTest, ReportsAResetWithItsReason) {
  begin();
  flowLine("info", "connect_handshake_succeeded", 0.002, {{"elapsed_ms", "1.25"}});
  EXPECT_EQ(flowLine("error", "tunnel_closed", 12.0, {{"detail", "Connection reset by peer"}}),
            "05:43:47.123 error D7A6D6B1 reset 12.0 s        /usr/bin/curl              "
            "198.51.100.10:443       Connection reset by peer");
}

TEST_F(EventLineTest, SaysThatTheBacklogSentAFlowDirect) {
  ReceivedEvent rejected =
      event("error", "connect_handshake_rejected", 0.0, {{"pending_handshakes", "48"}});
  rejected.code = "extension.connect_handshake_backlog_exceeded";
  rejected.flowId = "D7A6D6B1-53C9-4E54-8E4C-7D0D53E0F2F4";
  rejected.appId = application_;
  EXPECT_EQ(eventLine(rejected, flows_.apply(rejected), style_),
            "05:43:35.123 error D7A6D6B1 direct: backlog     /usr/bin/curl              "
            "-                       pending_handshakes=48");
}

TEST_F(EventLineTest, SaysWhatTheProxyMeansForNewConnections) {
  EXPECT_EQ(line(event("error", "proxy_unreachable", 0.0, {{"proxy", "127.0.0.1:8080"}})),
            "05:43:35.123 error -        proxy unreachable   -                          "
            "127.0.0.1:8080          new connections go direct");
}

TEST_F(EventLineTest, ShowsTheSentenceOfOtherEvents) {
  EXPECT_EQ(line(event("info", "provider_stopped", 0.0, {{"reason", "1"}})),
            "05:43:35.123 info  -        stopped             -                          "
            "-                       reason=1  Sentence");
}

TEST_F(EventLineTest, WritesDateAndZoneOnRequest) {
  style_.time = TimeStyle::utc;
  EXPECT_TRUE(begin().starts_with("2025-11-16T05:43:35.123Z info  D7A6D6B1 connecting "));
}

TEST_F(EventLineTest, ColoursOnlyTheLevel) {
  const auto error = event("error", "proxy_unreachable", 0.0, {});
  const std::string plain = line(error);
  style_.colour = Colour::terminal;
  std::string coloured = line(error);
  EXPECT_NE(coloured.find("\x1b[31merror\x1b[0m"), std::string::npos);
  coloured.erase(coloured.find("\x1b[31m"), 5);
  coloured.erase(coloured.find("\x1b[0m"), 4);
  EXPECT_EQ(coloured, plain);
}

TEST_F(EventLineTest, FitsIntoANarrowTerminal) {
  application_ = "/opt/a-company/lib/application-with-a-long-name";
  destination_ = "an.unusually.long.name.of.a.host.example:443";
  style_.width = 80;
  EXPECT_EQ(begin(),
            "05:43:35 info  D7A6D6B1 connecting          application-… …of.a.host.example:443");
  style_.width = 100;
  EXPECT_EQ(begin(),
            "05:43:35 info  D7A6D6B1 connecting          application-with-a-long-n… "
            "…g.name.of.a.host.example:443");
}

TEST_F(EventLineTest, DropsIdAndLevelBeforeTheApplication) {
  style_.width = 71;
  EXPECT_EQ(begin(), "05:43:35 info  connecting          curl          198.51.100.10:443");
  style_.width = 40;
  EXPECT_EQ(begin(), "05:43:35 connecting          curl     1…");
  style_.colour = Colour::terminal;
  EXPECT_EQ(begin(), "\x1b[32m05:43:35\x1b[0m connecting          curl     1…");
}

TEST_F(EventLineTest, NeverExceedsTheWidth) {
  application_ = "/opt/größe/größenwahn";
  for (style_.width = 1; style_.width < 160; ++style_.width) {
    flows_ = FlowHistory();
    begin();
    const std::string line = flowLine("error", "connect_handshake_rejected", 0.5,
                                      {{"status_line", "HTTP/1.1 403 Forbidden by the owner"}});
    std::size_t columns = 0;
    for (std::string_view rest = line; !rest.empty();
         rest.remove_prefix(firstCodePoint(rest).size)) {
      ++columns;
    }
    // The time is never cut.
    EXPECT_LE(columns, std::max<std::size_t>(style_.width, 8)) << style_.width;
    EXPECT_TRUE(isWellFormedUTF8(line));
  }
}

TEST_F(EventLineTest, LetsNoControlCharacterThrough) {
  application_ = "\r";
  destination_ = "\x1b[2J";
  begin();
  const std::string line = flowLine("\x1b[1m", "\n", 0.0, {{"\x08", "\xc2\x9b"}});
  for (const char character : line) {
    EXPECT_GE(static_cast<unsigned char>(character), 0x20);
    EXPECT_LT(static_cast<unsigned char>(character), 0x7F);
  }
  EXPECT_TRUE(line.ends_with("\\x08=\\u009b  Sentence")) << line;
}

}  // namespace
}  // namespace ostravel::companion
