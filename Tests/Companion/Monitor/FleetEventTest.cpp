#include "Companion/Monitor/FleetEvent.h"

#include <gtest/gtest.h>

#include "Tests/Companion/Events/EventSamples.h"

namespace ostravel::companion::test {
namespace {

ReceivedEvent received(const std::string& body) {
  return std::get<ReceivedEvent>(parseReceivedEvent(body));
}

TEST(FleetEventTest, IsReadBackWithItsMachine) {
  const ReceivedEvent event = received(kTunnelClosed);
  const FleetMessage message = fleetMessage(event, "host-1.example", "boot-1");
  EXPECT_EQ(message.id, "5B0F0C2C-3B58-4B0B-8E1D-9D2A9B3C7A11");
  const ReceivedEvent back = std::get<ReceivedEvent>(fleetEvent(message));
  EXPECT_EQ(back.host, "host-1.example");
  EXPECT_EQ(back.signal, event.signal);
  EXPECT_EQ(back.json, R"({"host":"host-1.example","boot_id":"boot-1",)" + event.json.substr(1));
}

TEST(FleetEventTest, HasAPlainIdWhateverTheEventSays) {
  const ReceivedEvent event = received(replaced(kEvent, "0B7E6A34", R"(x\r\nNats-Rollup: all)"));
  EXPECT_EQ(fleetMessage(event, "host", "boot").id,
            "x__Nats-Rollup__all-6F1C-4E64-9C9A-0A1B2C3D4E5F");
}

TEST(FleetEventTest, RefusesAnythingButAnEvent) {
  const FleetMessage message{.host = "host", .bootId = "boot", .id = "id", .json = "[]"};
  EXPECT_EQ(std::get<std::string>(fleetEvent(message)), "not a JSON object");
}

}  // namespace
}  // namespace ostravel::companion::test
