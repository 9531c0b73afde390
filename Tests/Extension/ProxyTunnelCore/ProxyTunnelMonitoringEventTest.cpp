#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringEvent.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

namespace ostravel {
namespace {

using CodingKey = ProxyTunnelMonitoringEvent::CodingKey;

class NumberedUUIDs final : public platform::UUIDSource {
 public:
  std::string randomUUID() override { return "UUID-" + std::to_string(++count_); }

 private:
  int count_ = 0;
};

ProxyTunnelMonitoringEvent makeEvent(platform::UUIDSource& uuids) {
  return {uuids,
          "proxy_unreachable",
          "flow",
          "error",
          "extension.code",
          "Sentence",
          {{{"count", 1.0}}},
          {{{"reason", "because"}}},
          12.5,
          "1970-01-01T00:00:12Z"};
}

TEST(ProxyTunnelMonitoringEvent, KeepsWhatItWasGiven) {
  NumberedUUIDs uuids;

  const auto event = makeEvent(uuids);

  EXPECT_EQ(event.currentSignal(), "proxy_unreachable");
  EXPECT_EQ(event.flowID(), "flow");
  EXPECT_EQ(event.level(), "error");
  EXPECT_EQ(event.code(), "extension.code");
  EXPECT_EQ(event.message(), "Sentence");
  EXPECT_EQ(event.metrics(), (ProxyTunnelMonitoringEvent::Metrics{{"count", 1.0}}));
  EXPECT_EQ(event.context(), (ProxyTunnelMonitoringEvent::Context{{"reason", "because"}}));
  EXPECT_EQ(event.timestamp(), 12.5);
  EXPECT_EQ(event.loggedAt(), "1970-01-01T00:00:12Z");
}

TEST(ProxyTunnelMonitoringEvent, FillsInTypeAndComponent) {
  NumberedUUIDs uuids;

  const auto event = makeEvent(uuids);

  EXPECT_EQ(event.type(), "extension_proxy_event");
  EXPECT_EQ(event.component(), "network_extension");
}

TEST(ProxyTunnelMonitoringEvent, TakesAFreshMessageIDForEachEvent) {
  NumberedUUIDs uuids;

  EXPECT_EQ(makeEvent(uuids).messageID(), "UUID-1");
  EXPECT_EQ(makeEvent(uuids).messageID(), "UUID-2");
}

TEST(ProxyTunnelMonitoringEvent, KeepsAbsentFieldsAbsent) {
  NumberedUUIDs uuids;

  const ProxyTunnelMonitoringEvent event(uuids, "signal", std::nullopt, "info", "code", "message",
                                         std::nullopt, std::nullopt, 0.0, "");

  EXPECT_EQ(event.flowID(), std::nullopt);
  EXPECT_EQ(event.metrics(), std::nullopt);
  EXPECT_EQ(event.context(), std::nullopt);
}

struct KeyCase {
  CodingKey key;
  const char* rawValue;
};

void PrintTo(const KeyCase& key, std::ostream* stream) {
  *stream << key.rawValue;
}

class CodingKeyOf : public testing::TestWithParam<KeyCase> {};

TEST_P(CodingKeyOf, ConvertsBothWays) {
  EXPECT_EQ(ProxyTunnelMonitoringEvent::rawValue(GetParam().key), GetParam().rawValue);
  EXPECT_EQ(ProxyTunnelMonitoringEvent::codingKey(GetParam().rawValue), GetParam().key);
}

INSTANTIATE_TEST_SUITE_P(
    Keys, CodingKeyOf,
    testing::Values(KeyCase{CodingKey::messageID, "message_id"},
                    KeyCase{CodingKey::timestamp, "timestamp"},
                    KeyCase{CodingKey::loggedAt, "logged_at"}, KeyCase{CodingKey::type, "type"},
                    KeyCase{CodingKey::currentSignal, "current_signal"},
                    KeyCase{CodingKey::flowID, "flow_id"},
                    KeyCase{CodingKey::component, "component"}, KeyCase{CodingKey::level, "level"},
                    KeyCase{CodingKey::code, "code"}, KeyCase{CodingKey::message, "message"},
                    KeyCase{CodingKey::metrics, "metrics"}, KeyCase{CodingKey::context, "context"}),
    [](const auto& testCase) { return std::string(testCase.param.rawValue); });

class NoCodingKey : public testing::TestWithParam<const char*> {};

TEST_P(NoCodingKey, ConvertsToNothing) {
  EXPECT_EQ(ProxyTunnelMonitoringEvent::codingKey(GetParam()), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Texts, NoCodingKey,
                         testing::Values("", "messageID", "message_id ", "MESSAGE_ID", "flow",
                                         "flowID", "signal", "contexts"));

}  // namespace
}  // namespace ostravel
