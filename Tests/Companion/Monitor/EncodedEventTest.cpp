#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "Companion/Events/ReceivedEvent.h"
#include "Extension/ProxyTunnelCore/MonitoringEventKind.h"
#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringEvent.h"
#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringFrameEncoder.h"
#include "Tests/Companion/Events/EventSamples.h"

namespace ostravel::companion {
namespace {

class FixedUUID final : public platform::UUIDSource {
 public:
  std::string randomUUID() override { return "7A1C8E62-6C8B-4E86-A5B7-0F2D6C6B9E90"; }
};

// An event as the extension's own encoder writes it, received.
ReceivedEvent received(std::string detail) {
  FixedUUID uuids;
  const ProxyTunnelMonitoringEvent event(
      uuids, "tunnel_closed", "D7A6D6B1-53C9-4E54-8E4C-7D0D53E0F2F4", "error",
      "extension.tunnel_closed", "Tunnel closed with error", std::nullopt,
      ProxyTunnelMonitoringEvent::Context{{"app_id", "/usr/bin/curl"},
                                          {"detail", std::move(detail)}},
      1763271816.5, "2025-11-16T05:43:36Z");
  const auto frame = ProxyTunnelMonitoringFrameEncoder().encode(event);
  const std::string bytes(reinterpret_cast<const char*>(frame->data()), frame->size());
  return std::get<ReceivedEvent>(parseReceivedEvent(bytes.substr(4)));
}

std::string detailOf(const ReceivedEvent& event) {
  return event.details.size() == 1 ? event.details[0].second : "not one";
}

TEST(EncodedEventTest, EqualsTheSampleOfTheOtherTests) {
  const ReceivedEvent event = received("Connection reset by peer");
  const ReceivedEvent sample = std::get<ReceivedEvent>(parseReceivedEvent(test::kTunnelClosed));
  EXPECT_EQ(event.signal, sample.signal);
  EXPECT_EQ(event.level, sample.level);
  EXPECT_EQ(event.message, sample.message);
  EXPECT_EQ(event.appId, sample.appId);
  EXPECT_EQ(event.details, sample.details);
  EXPECT_EQ(event.timestamp, sample.timestamp);
}

TEST(EncodedEventTest, SamplesAreEventsThatTheExtensionSends) {
  const auto expectKind = [](const std::string& sample, const MonitoringEventKind& kind) {
    const ReceivedEvent event = std::get<ReceivedEvent>(parseReceivedEvent(sample));
    EXPECT_EQ(event.signal, kind.signal);
    EXPECT_EQ(event.message, kind.message);
    EXPECT_EQ(event.level, rawValue(kind.level));
    EXPECT_NE(sample.find("\"code\":\"" + std::string(kind.code) + "\""), std::string::npos);
  };
  expectKind(test::kEvent, monitoring_events::kHandshakeSucceeded);
  expectKind(test::kTunnelClosed, monitoring_events::kTunnelClosedWithError);
  expectKind(test::kProviderStarted, monitoring_events::kProviderStarted);
}

TEST(EncodedEventTest, KeepsEveryCharacterOfItsTexts) {
  for (const std::string& detail :
       {std::string("nul \0 inside", 12), std::string("\x1b[2J\r\n\t\"\\/"),
        std::string("caf\xc3\xa9 \xf0\x9f\x98\x80 \xe2\x80\xae")}) {
    EXPECT_EQ(detailOf(received(detail)), detail);
  }
}

}  // namespace
}  // namespace ostravel::companion
