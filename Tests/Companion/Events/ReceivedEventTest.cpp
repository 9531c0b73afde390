#include "Companion/Events/ReceivedEvent.h"

#include <gtest/gtest.h>

#include "Tests/Companion/Events/EventSamples.h"

namespace ostravel::companion {
namespace {

using test::kEvent;
using test::kProviderStarted;
using test::kTunnelClosed;
using test::replaced;

using Details = std::vector<std::pair<std::string, std::string>>;

ReceivedEvent accepted(const std::string& body) {
  return std::get<ReceivedEvent>(parseReceivedEvent(body));
}

std::string problemOf(const std::string& body) {
  return std::get<std::string>(parseReceivedEvent(body));
}

TEST(ReceivedEventTest, ReadsTheFieldsThatAreShown) {
  const ReceivedEvent event = accepted(kEvent);
  EXPECT_DOUBLE_EQ(event.timestamp, 1763271815.123);
  EXPECT_EQ(event.level, "info");
  EXPECT_EQ(event.signal, "connect_handshake_succeeded");
  EXPECT_EQ(event.message, "CONNECT handshake completed");
  EXPECT_EQ(event.appId, "/usr/bin/curl");
  EXPECT_EQ(event.details, (Details{{"elapsed_ms", "1.25"}, {"leftover_bytes", "17"}}));
  EXPECT_EQ(event.json, replaced(kEvent, R"(\/usr\/bin\/curl)", "/usr/bin/curl"));
}

TEST(ReceivedEventTest, ShowsTheRestOfTheContextAsDetails) {
  EXPECT_EQ(accepted(kTunnelClosed).details, (Details{{"detail", "Connection reset by peer"}}));
}

TEST(ReceivedEventTest, AcceptsANulInsideAString) {
  const ReceivedEvent event =
      accepted(replaced(kTunnelClosed, "Connection reset", R"(Connection\u0000reset)"));
  const std::string detail("Connection\0reset by peer", 24);
  EXPECT_EQ(event.details, (Details{{"detail", detail}}));
  EXPECT_NE(event.json.find(R"("Connection\u0000reset by peer")"), std::string::npos);
}

TEST(ReceivedEventTest, RoundsMeasurementsToThousandths) {
  const auto shown = [](const std::string& number) {
    return accepted(replaced(kEvent, "1.25", number)).details[0].second;
  };
  EXPECT_EQ(shown("5.559444427490234"), "5.559");
  EXPECT_EQ(shown("0.0004"), "0");
  EXPECT_EQ(shown("-1.9996"), "-2");
  EXPECT_EQ(shown("1.5e308"), "1.5e+308");
  EXPECT_EQ(shown("3"), "3");
}

TEST(ReceivedEventTest, NeedsNoOptionalKey) {
  EXPECT_EQ(accepted(kProviderStarted).appId, "");
  EXPECT_TRUE(accepted(kProviderStarted).details.empty());
}

TEST(ReceivedEventTest, AcceptsAWholeNumberAsATime) {
  EXPECT_DOUBLE_EQ(accepted(replaced(kEvent, "1763271815.123", "17")).timestamp, 17);
}

TEST(ReceivedEventTest, IgnoresUnknownKeys) {
  EXPECT_NE(accepted(replaced(kEvent, "{", "{\"new\":[],")).json.find("\"new\":[]"),
            std::string::npos);
}

TEST(ReceivedEventTest, NamesEachMissingKey) {
  for (const std::string key : {"message_id", "timestamp", "logged_at", "type", "current_signal",
                                "component", "level", "code", "message"}) {
    EXPECT_EQ(problemOf(replaced(kEvent, "\"" + key + "\":", "\"other\":")),
              "\"" + key + "\" is missing");
  }
}

TEST(ReceivedEventTest, NamesEachKeyOfAnotherType) {
  EXPECT_EQ(problemOf(replaced(kEvent, "1763271815.123", "\"now\"")),
            "\"timestamp\" is not a number");
  EXPECT_EQ(problemOf(replaced(kEvent, "\"info\"", "1")), "\"level\" is not a string");
  EXPECT_EQ(problemOf(replaced(kEvent, "\"CONNECT handshake completed\"", "null")),
            "\"message\" is not a string");
  EXPECT_EQ(problemOf(replaced(kEvent, "\"D7A6D6B1-53C9-4E54-8E4C-7D0D53E0F2F4\"", "1")),
            "\"flow_id\" is not a string");
  EXPECT_EQ(problemOf(replaced(kEvent, "1.25", "\"x\"")),
            "\"elapsed_ms\" of \"metrics\" is not a number");
  EXPECT_EQ(problemOf(replaced(kTunnelClosed, "\"Connection reset by peer\"", "104")),
            "\"detail\" of \"context\" is not a string");
  EXPECT_EQ(problemOf(replaced(kEvent, "{\"elapsed_ms\":1.25,\"leftover_bytes\":17.0}", "[]")),
            "\"metrics\" is not an object");
}

TEST(ReceivedEventTest, RefusesAnotherTypeOfMessage) {
  EXPECT_EQ(problemOf(replaced(kEvent, "extension_proxy_event", "other")),
            "\"type\" is not \"extension_proxy_event\"");
}

TEST(ReceivedEventTest, RefusesAnythingButASingleObject) {
  for (const std::string& body :
       {std::string("nonsense"), kEvent + "x", kEvent + kEvent, std::string("17"),
        kEvent.substr(0, kEvent.size() - 1), replaced(kEvent, "completed", "\xff"),
        replaced(kEvent, "completed", "\x1b"), kEvent + '\0',
        replaced(kEvent, "1763271815.123", std::string("1763271815.123\0", 15))}) {
    EXPECT_TRUE(problemOf(body).starts_with("not JSON: ")) << body;
  }
  EXPECT_EQ(problemOf("[]"), "not a JSON object");
}

TEST(ReceivedEventTest, RefusesADuplicateKey) {
  EXPECT_TRUE(problemOf(replaced(kEvent, "{", "{\"level\":\"info\",")).starts_with("not JSON: "));
  EXPECT_TRUE(problemOf(replaced(kEvent, "{\"app_id\"", "{\"app_id\":\"\",\"app_id\""))
                  .starts_with("not JSON: "));
}

}  // namespace
}  // namespace ostravel::companion
