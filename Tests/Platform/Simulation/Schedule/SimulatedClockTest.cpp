#include "Platform/Simulation/Schedule/SimulatedClock.h"

#include <gtest/gtest.h>

#include <chrono>

#include "Platform/Simulation/Simulation.h"

namespace ostravel::simulation {
namespace {

using namespace std::chrono_literals;

TEST(SimulatedClockTest, StartsAtAFixedMoment) {
  const Simulation simulation;
  EXPECT_EQ(simulation.clock().secondsSince1970(), 1'600'000'000.0);
}

TEST(SimulatedClockTest, FollowsVirtualTimeWithAFraction) {
  Simulation simulation;
  simulation.advance(1250ms);
  EXPECT_DOUBLE_EQ(simulation.clock().secondsSince1970(), 1'600'000'001.25);
}

TEST(SimulatedClockTest, DoesNotAdvanceWhileItemsRun) {
  Simulation simulation;
  for (int i = 0; i < 1000; ++i) {
    simulation.post([] {});
  }
  simulation.run();
  EXPECT_EQ(simulation.clock().secondsSince1970(), SimulatedClock::kStart);
}

}  // namespace
}  // namespace ostravel::simulation
