#include "Platform/Simulation/Schedule/SimulatedUUIDSource.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "Platform/Simulation/Simulation.h"

namespace ostravel::simulation {
namespace {

// PlatformContractTest checks the form.
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
