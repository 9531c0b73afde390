#include "Platform/Simulation/Schedule/SimulatedUUIDSource.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

#include "Platform/Simulation/Simulation.h"

namespace ostravel::simulation {
namespace {

TEST(SimulatedUUIDSourceTest, IdentifiersAreOfVersionFour) {
  Simulation simulation;
  const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  for (int i = 0; i < 200; ++i) {
    const auto uuid = simulation.uuidSource().randomUUID();
    EXPECT_TRUE(std::regex_match(uuid, form)) << uuid;
  }
}

TEST(SimulatedUUIDSourceTest, IdentifiersDiffer) {
  Simulation simulation;
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    seen.insert(simulation.uuidSource().randomUUID());
  }
  EXPECT_EQ(seen.size(), 1000U);
}

TEST(SimulatedUUIDSourceTest, TheSeedDeterminesTheIdentifiers) {
  Simulation one({.seed = 5, .faults = {}});
  Simulation same({.seed = 5, .faults = {}});
  Simulation other({.seed = 6, .faults = {}});
  const auto uuid = one.uuidSource().randomUUID();
  EXPECT_EQ(same.uuidSource().randomUUID(), uuid);
  EXPECT_NE(other.uuidSource().randomUUID(), uuid);
}

TEST(SimulatedUUIDSourceTest, FaultsDoNotChangeTheIdentifiers) {
  Simulation one({.seed = 5, .faults = {}});
  Simulation faulty({.order = RunOrder::seeded, .seed = 5, .faults = {.latency = 1.0}});
  faulty.uuidSource();
  const auto flow = faulty.makeTCPFlow("app", std::nullopt);
  flow->open(std::nullopt, [](const platform::OptionalError&) {});
  faulty.advance(std::chrono::seconds(1));
  EXPECT_EQ(one.uuidSource().randomUUID(), faulty.uuidSource().randomUUID());
}

}  // namespace
}  // namespace ostravel::simulation
