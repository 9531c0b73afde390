#include "Extension/ProxyTunnelCore/MonitoringEventKind.h"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>

#include "Platform/Simulation/Simulation.h"

namespace ostravel {
namespace {

using namespace std::chrono_literals;

constexpr MonitoringEventKind kKind{"signal", "extension.code", MonitoringLevel::error, "Message"};

TEST(MonitoringLevel, HasItsText) {
  EXPECT_EQ(rawValue(MonitoringLevel::info), "info");
  EXPECT_EQ(rawValue(MonitoringLevel::error), "error");
}

TEST(MakeMonitoringEvent, KeepsTheKindAndTheGivenValues) {
  simulation::Simulation simulation;
  const ProxyTunnelMonitoringEvent::Context context{{"key", "value"}};
  const ProxyTunnelMonitoringEvent::Metrics metrics{{"count", 2.0}};

  const auto event = makeMonitoringEvent(simulation, kKind, "FLOW", context, metrics);

  EXPECT_EQ(event.currentSignal(), "signal");
  EXPECT_EQ(event.code(), "extension.code");
  EXPECT_EQ(event.level(), "error");
  EXPECT_EQ(event.message(), "Message");
  EXPECT_EQ(event.flowID(), "FLOW");
  EXPECT_EQ(event.context(), context);
  EXPECT_EQ(event.metrics(), metrics);
}

TEST(MakeMonitoringEvent, LeavesOmittedValuesAbsent) {
  simulation::Simulation simulation;

  const auto event =
      makeMonitoringEvent(simulation, kKind, std::nullopt, std::nullopt, std::nullopt);

  EXPECT_EQ(event.flowID(), std::nullopt);
  EXPECT_EQ(event.context(), std::nullopt);
  EXPECT_EQ(event.metrics(), std::nullopt);
}

TEST(MakeMonitoringEvent, IsDatedNow) {
  simulation::Simulation simulation;
  simulation.advance(90500ms);

  const auto event =
      makeMonitoringEvent(simulation, kKind, std::nullopt, std::nullopt, std::nullopt);

  EXPECT_EQ(event.timestamp(), simulation::SimulatedClock::kStart + 90.5);
  EXPECT_EQ(event.loggedAt(), "2020-09-13T12:28:10Z");
}

}  // namespace
}  // namespace ostravel
