#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringFrameEncoder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <set>
#include <string>
#include <utility>

#include "Tests/Extension/Support/Bytes.h"
#include "Tests/Extension/Support/MonitoringRecord.h"

namespace ostravel {
namespace {

using test::bytesOf;
using test::MonitoringRecord;
using test::parseFrame;
using test::textOf;
using Frame = ProxyTunnelMonitoringFrameEncoder::Frame;
using Metrics = ProxyTunnelMonitoringEvent::Metrics;
using Context = ProxyTunnelMonitoringEvent::Context;

class FixedUUID final : public platform::UUIDSource {
 public:
  std::string randomUUID() override { return "ID"; }
};

// A generic event; each test changes the field that it checks.
struct EventDraft {
  std::optional<std::string> flowID = std::nullopt;
  std::string message = "message";
  std::optional<Metrics> metrics = std::nullopt;
  std::optional<Context> context = std::nullopt;
  double timestamp = 1.5;

  ProxyTunnelMonitoringEvent make() const {
    FixedUUID uuids;
    return {uuids,   "signal", flowID,  "info",    "extension.code",
            message, metrics,  context, timestamp, "1970-01-01T00:00:01Z"};
  }
};

platform::Result<Frame> encode(const EventDraft& draft) {
  return ProxyTunnelMonitoringFrameEncoder().encode(draft.make());
}

Frame frameOf(const EventDraft& draft) {
  auto encoded = encode(draft);
  if (!encoded) {
    ADD_FAILURE() << describe(encoded.error());
    return {};
  }
  return *std::move(encoded);
}

std::string bodyOf(const EventDraft& draft) {
  const Frame frame = frameOf(draft);
  return frame.size() < 4 ? "" : textOf(std::span(frame).subspan(4));
}

std::string failureOf(const EventDraft& draft) {
  const auto encoded = encode(draft);
  if (encoded) {
    return "none";
  }
  EXPECT_EQ(encoded.error().domain, "JSONEncoding");
  return encoded.error().localizedDescription;
}

const std::set<std::string> kRequiredKeys = {"message_id", "timestamp", "logged_at",
                                             "type",       "level",     "current_signal",
                                             "component",  "code",      "message"};

std::set<std::string> requiredKeysAnd(const std::string& key) {
  std::set<std::string> keys = kRequiredKeys;
  keys.insert(key);
  return keys;
}

TEST(ProxyTunnelMonitoringFrameEncoder, WritesExactlyTheNineRequiredKeysOfABareEvent) {
  EXPECT_EQ(parseFrame(frameOf({})).keys, kRequiredKeys);
}

TEST(ProxyTunnelMonitoringFrameEncoder, AddsAKeyForEachFieldThatIsPresent) {
  EXPECT_EQ(parseFrame(frameOf({.flowID = "f"})).keys, requiredKeysAnd("flow_id"));
  EXPECT_EQ(parseFrame(frameOf({.metrics = Metrics{{"m", 1.0}}})).keys, requiredKeysAnd("metrics"));
  EXPECT_EQ(parseFrame(frameOf({.context = Context{{"c", "v"}}})).keys, requiredKeysAnd("context"));
}

TEST(ProxyTunnelMonitoringFrameEncoder, WritesEveryField) {
  const auto record = parseFrame(
      frameOf({.flowID = "f", .metrics = Metrics{{"m", 0.25}}, .context = Context{{"c", "v"}}}));

  EXPECT_EQ(record.messageID, "ID");
  EXPECT_EQ(record.timestamp, 1.5);
  EXPECT_EQ(record.loggedAt, "1970-01-01T00:00:01Z");
  EXPECT_EQ(record.type, "extension_proxy_event");
  EXPECT_EQ(record.signal, "signal");
  EXPECT_EQ(record.flowID, "f");
  EXPECT_EQ(record.component, "network_extension");
  EXPECT_EQ(record.level, "info");
  EXPECT_EQ(record.code, "extension.code");
  EXPECT_EQ(record.message, "message");
  EXPECT_EQ(record.metrics, (MonitoringRecord::Metrics{{"m", 0.25}}));
  EXPECT_EQ(record.context, (MonitoringRecord::Context{{"c", "v"}}));
}

TEST(ProxyTunnelMonitoringFrameEncoder, WritesPresentButEmptyMapsAsEmptyObjects) {
  const std::string body = bodyOf({.metrics = Metrics{}, .context = Context{}});

  EXPECT_NE(body.find(R"("metrics":{})"), std::string::npos) << body;
  EXPECT_NE(body.find(R"("context":{})"), std::string::npos) << body;
}

TEST(ProxyTunnelMonitoringFrameEncoder, WritesOneCompactLine) {
  const std::string body = bodyOf({.metrics = Metrics{{"a", 1.0}, {"b", 2.0}}});

  EXPECT_EQ(body.find_first_of(" \t\r\n"), std::string::npos) << body;
  EXPECT_EQ(body.front(), '{');
  EXPECT_EQ(body.back(), '}');
}

TEST(ProxyTunnelMonitoringFrameEncoder, WritesASlashEscaped) {
  const std::string body = bodyOf({.context = Context{{"a/b", "/tmp/m.sock"}}});

  EXPECT_NE(body.find(R"("a\/b":"\/tmp\/m.sock")"), std::string::npos) << body;
}

TEST(ProxyTunnelMonitoringFrameEncoder, EscapesWhatJSONAsksFor) {
  const std::string text("quote\" backslash\\ \n \x01 \0 end", 27);

  const auto record = parseFrame(frameOf({.context = Context{{"c", "\"\n"}}}));
  EXPECT_EQ(record.context->at("c"), "\"\n");

  const std::string body = bodyOf({.message = text});
  EXPECT_NE(body.find(R"(quote\" backslash\\ \n \u0001 \u0000 end)"), std::string::npos) << body;
}

TEST(ProxyTunnelMonitoringFrameEncoder, WritesTextBeyondASCIIAsUTF8) {
  const std::string body = bodyOf({.message = "\u00E4\u20AC\U0001F600"});

  EXPECT_NE(body.find("\u00E4\u20AC\U0001F600"), std::string::npos) << body;
}

TEST(ProxyTunnelMonitoringFrameEncoder, KeepsEveryDigitOfANumber) {
  const auto record = parseFrame(
      frameOf({.metrics = Metrics{{"third", 1.0 / 3.0}, {"whole", 48.0}, {"small", 5e-324}},
               .timestamp = 1794807815.123456}));

  EXPECT_EQ(record.timestamp, 1794807815.123456);
  EXPECT_EQ(record.metrics->at("third"), 1.0 / 3.0);
  EXPECT_EQ(record.metrics->at("whole"), 48.0);
  EXPECT_EQ(record.metrics->at("small"), 5e-324);
}

TEST(ProxyTunnelMonitoringFrameEncoder, PutsTheBodyLengthInFrontInBigEndianOrder) {
  const std::size_t emptyBody = bodyOf({.message = ""}).size();
  ASSERT_LT(emptyBody, 300U);

  const Frame frame = frameOf({.message = std::string(300 - emptyBody, 'x')});

  ASSERT_EQ(frame.size(), 304U);
  EXPECT_EQ(Frame(frame.begin(), frame.begin() + 4), bytesOf({0x00, 0x00, 0x01, 0x2C}));
}

TEST(ProxyTunnelMonitoringFrameEncoder, PutsALongBodysLengthInFront) {
  const std::size_t emptyBody = bodyOf({.message = ""}).size();

  const Frame frame = frameOf({.message = std::string(0x010203 - emptyBody, 'x')});

  ASSERT_EQ(frame.size(), 4U + 0x010203U);
  EXPECT_EQ(Frame(frame.begin(), frame.begin() + 4), bytesOf({0x00, 0x01, 0x02, 0x03}));
}

TEST(ProxyTunnelMonitoringFrameEncoder, WritesABodyOfAnyLength) {
  const std::size_t shortest = bodyOf({.message = ""}).size();
  for (std::size_t length = 1; length < 1500; ++length) {
    const std::string body = bodyOf({.message = std::string(length, 'x')});
    ASSERT_EQ(body.size(), shortest + length);
    ASSERT_EQ(body.substr(body.size() - length - 2), std::string(length, 'x') + "\"}");
  }
}

class NonFiniteNumber : public testing::TestWithParam<double> {};

TEST_P(NonFiniteNumber, FailsAsTimestamp) {
  EXPECT_NE(failureOf({.timestamp = GetParam()}).find("\"timestamp\""), std::string::npos);
}

TEST_P(NonFiniteNumber, FailsAsMetric) {
  const EventDraft draft{.metrics = Metrics{{"fine", 1.0}, {"odd", GetParam()}}};

  EXPECT_NE(failureOf(draft).find("\"metrics.odd\""), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Numbers, NonFiniteNumber,
                         testing::Values(std::numeric_limits<double>::quiet_NaN(),
                                         std::numeric_limits<double>::infinity(),
                                         -std::numeric_limits<double>::infinity()));

TEST(ProxyTunnelMonitoringFrameEncoder, FailsOnTextThatIsNotUTF8) {
  EXPECT_NE(failureOf({.message = "\xFF"}).find("\"message\""), std::string::npos);
  EXPECT_NE(failureOf({.context = Context{{"c", "\xFF"}}}).find("\"context.c\""),
            std::string::npos);
}

TEST(ProxyTunnelMonitoringFrameEncoder, FailsWithTheFirstValueThatCannotBeWritten) {
  const double nan = std::nan("");

  EXPECT_NE(failureOf({.metrics = Metrics{{"odd", nan}}, .timestamp = nan}).find("\"timestamp\""),
            std::string::npos);
}

TEST(ProxyTunnelMonitoringFrameEncoder, IsNotChangedByAFailure) {
  const ProxyTunnelMonitoringFrameEncoder encoder;
  ASSERT_FALSE(encoder.encode(EventDraft{.timestamp = std::nan("")}.make()));

  EXPECT_TRUE(encoder.encode(EventDraft{}.make()));
}

}  // namespace
}  // namespace ostravel
