#include "Extension/ProxyTunnelCore/ExtensionLog.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>

#include "Platform/Simulation/Simulation.h"

namespace ostravel {
namespace {

using simulation::Simulation;
using simulation::SimulationOptions;

SimulationOptions withBundleIdentifier(std::optional<std::string> identifier) {
  SimulationOptions options;
  options.mainBundleIdentifier = std::move(identifier);
  return options;
}

TEST(ExtensionLog, HasTheBundleIdentifierForItsSubsystem) {
  Simulation simulation(withBundleIdentifier("com.ostravel.desktop.extension"));

  makeExtensionLog(simulation)->info("OstravelProxy: line");

  EXPECT_EQ(simulation.logRecords().at(0).subsystem, "com.ostravel.desktop.extension");
  EXPECT_EQ(simulation.logRecords().at(0).category, "OstravelProxy");
}

TEST(ExtensionLog, HasAFixedSubsystemWithoutABundleIdentifier) {
  Simulation simulation(withBundleIdentifier(std::nullopt));

  makeExtensionLog(simulation)->info("OstravelProxy: line");

  EXPECT_EQ(simulation.logRecords().at(0).subsystem, "OstravelNetworkExtension");
  EXPECT_EQ(simulation.logRecords().at(0).category, "OstravelProxy");
}

}  // namespace
}  // namespace ostravel
