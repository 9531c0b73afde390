#include "Platform/Simulation/FaultPlan.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "Platform/Simulation/Simulation.h"
#include "Tests/Support/Outcome.h"

namespace ostravel::simulation {
namespace {

using testing::Outcome;

using namespace std::chrono_literals;

class FaultPlanTest : public ::testing::Test {
 protected:
  void SetUp() override {
    flow_->open(std::nullopt, opened_.completion());
    connection_ =
        simulation_.createTCPConnection({"127.0.0.1", "8080"}, platform::TLSPolicy::disabled);
  }

  Simulation simulation_;
  const std::shared_ptr<SimulatedTCPFlow> flow_ = simulation_.makeTCPFlow("app", std::nullopt);
  std::shared_ptr<platform::TCPConnection> connection_;
  Outcome opened_;
  Outcome read_;
  Outcome written_;
};

TEST_F(FaultPlanTest, NothingGoesWrongByDefault) {
  simulation_.connection(0)->accept();
  simulation_.run();
  EXPECT_FALSE(opened_.error());
  EXPECT_EQ(connection_->state(), platform::TCPConnectionState::connected);
  for (int i = 0; i < 1000; ++i) {
    flow_->application()->send("abc");
    flow_->read(read_.readCompletion());
    flow_->write(platform::Data::copyOf("x"), written_.completion());
    simulation_.run();
    ASSERT_EQ(read_.lastText(), "abc");
    ASSERT_FALSE(written_.error());
  }
  EXPECT_EQ(simulation_.now(), 0ns);
}

TEST_F(FaultPlanTest, LatencyDelaysCompletionsUpToItsMaximum) {
  simulation_.run();
  simulation_.setFaults({.latency = 1.0, .maximumLatency = 10ms});
  std::set<std::chrono::nanoseconds> latencies;
  for (int i = 0; i < 100; ++i) {
    const auto start = simulation_.now();
    flow_->application()->send("x");
    flow_->read(read_.readCompletion());
    simulation_.run();
    ASSERT_EQ(read_.count(), i);
    ASSERT_TRUE(simulation_.runUntil([&] { return read_.count() == i + 1; }, 10ms));
    latencies.insert(simulation_.now() - start);
  }
  EXPECT_GT(latencies.size(), 50U);
}

TEST_F(FaultPlanTest, LatencyDelaysAcceptanceAndNetworkSettings) {
  simulation_.setFaults({.latency = 1.0, .maximumLatency = 10ms});
  Outcome applied;
  simulation_.setTunnelNetworkSettings(platform::TransparentProxyNetworkSettings("127.0.0.1"),
                                       applied.completion());
  simulation_.connection(0)->accept();
  simulation_.run();
  EXPECT_EQ(applied.count(), 0);
  EXPECT_EQ(connection_->state(), platform::TCPConnectionState::connecting);
  simulation_.advance(10ms);
  EXPECT_EQ(applied.count(), 1);
  EXPECT_EQ(connection_->state(), platform::TCPConnectionState::connected);
}

TEST_F(FaultPlanTest, ShortReadsDeliverAtLeastTheirMinimumAndLoseNothing) {
  simulation_.connection(0)->accept();
  simulation_.run();
  simulation_.setFaults({.shortRead = 1.0});
  const std::string sent(200, 'x');
  std::set<std::size_t> sizes;
  std::size_t total = 0;
  simulation_.peer(0)->send(sent);
  while (total < sent.size()) {
    const auto minimum = std::min<std::size_t>(3, sent.size() - total);
    connection_->read(minimum, 20, read_.readCompletion());
    simulation_.run();
    ASSERT_GE(read_.lastText().size(), minimum);
    ASSERT_LE(read_.lastText().size(), 20U);
    sizes.insert(read_.lastText().size());
    total += read_.lastText().size();
  }
  EXPECT_EQ(total, sent.size());
  EXPECT_GT(sizes.size(), 3U);
}

TEST_F(FaultPlanTest, ReadErrorsStay) {
  simulation_.run();
  simulation_.setFaults({.readError = 1.0});
  flow_->application()->send("x");
  flow_->read(read_.readCompletion());
  simulation_.run();
  EXPECT_EQ(read_.error()->code, ECONNRESET);
  simulation_.setFaults({});
  flow_->read(read_.readCompletion());
  simulation_.run();
  EXPECT_EQ(read_.error()->code, ECONNRESET);
}

TEST_F(FaultPlanTest, WriteErrorsStay) {
  simulation_.run();
  simulation_.setFaults({.writeError = 1.0});
  flow_->write(platform::Data::copyOf("x"), written_.completion());
  simulation_.run();
  EXPECT_EQ(written_.error()->code, ECONNRESET);
  EXPECT_EQ(flow_->application()->received(), "");
  simulation_.setFaults({});
  flow_->write(platform::Data::copyOf("x"), written_.completion());
  simulation_.run();
  EXPECT_EQ(written_.error()->code, ECONNRESET);
}

TEST_F(FaultPlanTest, OpeningFails) {
  simulation_.setFaults({.openError = 1.0});
  simulation_.run();
  EXPECT_EQ(opened_.count(), 1);
  EXPECT_TRUE(opened_.error());
}

TEST_F(FaultPlanTest, AnAcceptanceBecomesARefusal) {
  simulation_.setFaults({.connectRefusal = 1.0});
  simulation_.connection(0)->accept();
  simulation_.run();
  EXPECT_EQ(connection_->state(), platform::TCPConnectionState::disconnected);
  EXPECT_EQ(connection_->error()->code, ECONNREFUSED);
}

TEST_F(FaultPlanTest, AListeningPeerOfASocketRefuses) {
  simulation_.setFaults({.socketRefusal = 1.0});
  auto& sockets = simulation_.sockets();
  sockets.proxyListening(true);
  sockets.localListening(true);
  for (const int family : {AF_INET, AF_UNIX}) {
    const auto descriptor = static_cast<int>(sockets.socket(family, SOCK_STREAM, 0).value);
    EXPECT_EQ(sockets.connect(descriptor, {}).error, ECONNREFUSED);
  }
}

TEST_F(FaultPlanTest, FaultsOccurWithTheirProbability) {
  int failures = 0;
  for (std::uint64_t seed = 0; seed < 1000; ++seed) {
    Simulation simulation({.seed = seed, .faults = {.openError = 0.3}});
    const auto flow = simulation.makeTCPFlow("app", std::nullopt);
    Outcome opened;
    flow->open(std::nullopt, opened.completion());
    simulation.run();
    failures += opened.error() ? 1 : 0;
  }
  EXPECT_NEAR(failures, 300, 60);
}

}  // namespace
}  // namespace ostravel::simulation
