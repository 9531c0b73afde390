#include "Platform/Simulation/SimulatedUDPFlow.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Simulation/Simulation.h"

namespace ostravel::simulation {
namespace {

TEST(SimulatedUDPFlowTest, HasItsIdentifierAndLocalEndpoint) {
  Simulation simulation;
  const auto flow = simulation.makeUDPFlow("com.example", {{"192.0.2.1", "5000"}});
  EXPECT_EQ(flow->sourceAppSigningIdentifier(), "com.example");
  EXPECT_EQ(flow->localEndpoint(), (platform::HostEndpoint{"192.0.2.1", "5000"}));
}

TEST(SimulatedUDPFlowTest, TheEndpointMayBeAbsent) {
  Simulation simulation;
  EXPECT_FALSE(simulation.makeUDPFlow("com.example", std::nullopt)->localEndpoint());
}

TEST(SimulatedUDPFlowTest, ShowsHowAndInWhichOrderItWasClosed) {
  Simulation simulation;
  const auto flow = simulation.makeUDPFlow("com.example", std::nullopt);
  EXPECT_FALSE(flow->readWasClosed());
  EXPECT_FALSE(flow->writeWasClosed());
  flow->closeRead(std::nullopt);
  EXPECT_TRUE(flow->readWasClosed());
  EXPECT_FALSE(flow->writeWasClosed());
  flow->closeWrite(platform::Error{"D", 1, "reason"});
  flow->closeWrite(std::nullopt);
  EXPECT_FALSE(flow->readCloseError());
  EXPECT_EQ(flow->writeCloseError(), (platform::Error{"D", 1, "reason"}));
  EXPECT_EQ(simulation.journal().lines(),
            (std::vector<std::string>{"flow 1: closeRead", "flow 1: closeWrite: reason",
                                      "flow 1: closeWrite"}));
}

}  // namespace
}  // namespace ostravel::simulation
