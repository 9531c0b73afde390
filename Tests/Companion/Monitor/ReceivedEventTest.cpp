#include "Companion/Monitor/ReceivedEvent.h"

#include <gtest/gtest.h>

#include "Tests/Companion/Monitor/EventSamples.h"

namespace ostravel::companion {
namespace {

using test::kEvent;
using test::replaced;

ReceivedEvent accepted(const std::string& body) {
  return std::get<ReceivedEvent>(parseReceivedEvent(body));
}

std::string problemOf(const std::string& body) {
  return std::get<std::string>(parseReceivedEvent(body));
}

TEST(ReceivedEventTest, TakesWhatIsShown) {
  const ReceivedEvent event = accepted(kEvent);
  EXPECT_DOUBLE_EQ(event.timestamp, 1763271815.123);
  EXPECT_EQ(event.level, "info");
  EXPECT_EQ(event.signal, "proxy_reachable");
  EXPECT_EQ(event.message, "Tunnel opened");
  EXPECT_EQ(event.appId, "org.example.browser");
  const std::vector<std::pair<std::string, std::string>> details{
      {"proxy", "127.0.0.1:8080"}, {"detail", "a/b c"}, {"duration_ms", "12.5"}, {"count", "3"}};
  EXPECT_EQ(event.details, details);
  EXPECT_EQ(event.json, replaced(kEvent, "\\/", "/"));
}

TEST(ReceivedEventTest, RoundsMeasurementsToThousandths) {
  const auto shown = [](const std::string& number) {
    return accepted(replaced(kEvent, "12.5", number)).details[2].second;
  };
  EXPECT_EQ(shown("5.559444427490234"), "5.559");
  EXPECT_EQ(shown("0.0004"), "0");
  EXPECT_EQ(shown("-1.9996"), "-2");
  EXPECT_EQ(shown("1.5e308"), "1.5e+308");
}

TEST(ReceivedEventTest, NeedsNoOptionalKey) {
  std::string body = kEvent.substr(0, kEvent.find(",\"metrics\"")) + "}";
  body = replaced(body, "\"flow_id\":\"6F1C\",", "");
  EXPECT_EQ(accepted(body).appId, "");
  EXPECT_TRUE(accepted(body).details.empty());
}

TEST(ReceivedEventTest, TakesAWholeNumberForATime) {
  EXPECT_DOUBLE_EQ(accepted(replaced(kEvent, "1763271815.123", "17")).timestamp, 17);
}

TEST(ReceivedEventTest, LeavesUnknownKeysAlone) {
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
  EXPECT_EQ(problemOf(replaced(kEvent, "\"Tunnel opened\"", "null")),
            "\"message\" is not a string");
  EXPECT_EQ(problemOf(replaced(kEvent, "\"6F1C\"", "1")), "\"flow_id\" is not a string");
  EXPECT_EQ(problemOf(replaced(kEvent, "12.5", "\"x\"")),
            "\"duration_ms\" of \"metrics\" is not a number");
  EXPECT_EQ(problemOf(replaced(kEvent, "\"127.0.0.1:8080\"", "8080")),
            "\"proxy\" of \"context\" is not a string");
  EXPECT_EQ(problemOf(replaced(kEvent, "{\"duration_ms\":12.5,\"count\":3}", "[]")),
            "\"metrics\" is not an object");
}

TEST(ReceivedEventTest, RefusesAnotherTypeOfMessage) {
  EXPECT_EQ(problemOf(replaced(kEvent, "extension_proxy_event", "other")),
            "\"type\" is not \"extension_proxy_event\"");
}

TEST(ReceivedEventTest, RefusesWhatIsNoSingleObject) {
  for (const std::string& body :
       {std::string("nonsense"), kEvent + "x", kEvent + kEvent, std::string("17"),
        kEvent.substr(0, kEvent.size() - 1), replaced(kEvent, "Tunnel", "\xff"),
        replaced(kEvent, "Tunnel", "\\u0000"), replaced(kEvent, "Tunnel", "\x1b")}) {
    EXPECT_TRUE(problemOf(body).starts_with("not JSON: ")) << body;
  }
  EXPECT_EQ(problemOf("[]"), "not a JSON object");
}

TEST(ReceivedEventTest, RefusesAKeyThatComesTwice) {
  EXPECT_TRUE(problemOf(replaced(kEvent, "{", "{\"level\":\"info\",")).starts_with("not JSON: "));
  EXPECT_TRUE(problemOf(replaced(kEvent, "{\"app_id\"", "{\"proxy\":\"\",\"app_id\""))
                  .starts_with("not JSON: "));
}

}  // namespace
}  // namespace ostravel::companion
