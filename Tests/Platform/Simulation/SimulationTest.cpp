#include "Platform/Simulation/Simulation.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "Tests/Support/Outcome.h"

namespace ostravel::simulation {
namespace {

using testing::Outcome;

using namespace std::chrono_literals;

const platform::Error kError{"Domain", 7, "reason"};

platform::TransparentProxyNetworkSettings settings(const std::string& address) {
  return platform::TransparentProxyNetworkSettings(address);
}

TEST(SimulationTest, TheBundleIdentifierIsSettable) {
  EXPECT_EQ(Simulation().mainBundleIdentifier(), "com.ostravel.simulation");
  EXPECT_EQ(Simulation({.faults = {}, .mainBundleIdentifier = std::nullopt}).mainBundleIdentifier(),
            std::nullopt);
}

TEST(SimulationTest, TextServicesKnowUnicode) {
  const Simulation simulation;
  EXPECT_EQ(simulation.text().lowercased("\u00c4"), "\u00e4");
  EXPECT_EQ(simulation.text().trimmed("\u2003x\n"), "x");
}

TEST(SimulationTest, NetworkSettingsAreRecordedAndAnsweredWithSuccess) {
  Simulation simulation;
  Outcome outcome;
  auto asked = settings("127.0.0.1");
  asked.includedNetworkRules.push_back({{"0.0.0.0", "443"}, 0, platform::NetworkRuleProtocol::udp});
  simulation.setTunnelNetworkSettings(asked, outcome.completion());
  EXPECT_EQ(outcome.count(), 0);
  simulation.run();
  EXPECT_EQ(outcome.count(), 1);
  EXPECT_FALSE(outcome.error());
  ASSERT_EQ(simulation.networkSettings().size(), 1U);
  EXPECT_EQ(simulation.networkSettings()[0].tunnelRemoteAddress, "127.0.0.1");
  EXPECT_EQ(simulation.networkSettings()[0].includedNetworkRules, asked.includedNetworkRules);
}

TEST(SimulationTest, NetworkSettingsMayFail) {
  Simulation simulation;
  Outcome outcome;
  simulation.answerNetworkSettings(kError);
  simulation.setTunnelNetworkSettings(settings("127.0.0.1"), outcome.completion());
  simulation.run();
  EXPECT_EQ(outcome.error(), kError);
}

TEST(SimulationTest, NetworkSettingsMayBeAnsweredLater) {
  Simulation simulation;
  Outcome first;
  Outcome second;
  simulation.holdNetworkSettings();
  simulation.setTunnelNetworkSettings(settings("a"), first.completion());
  simulation.setTunnelNetworkSettings(settings("b"), second.completion());
  simulation.advance(1h);
  EXPECT_EQ(first.count() + second.count(), 0);
  simulation.completeNetworkSettings(kError);
  simulation.run();
  EXPECT_EQ(first.error(), kError);
  EXPECT_EQ(second.count(), 0);
  simulation.completeNetworkSettings(std::nullopt);
  simulation.run();
  EXPECT_EQ(second.count(), 1);
  EXPECT_THROW(simulation.completeNetworkSettings(std::nullopt), std::logic_error);
}

TEST(SimulationTest, ConnectionsAreRecordedWithTheirArguments) {
  Simulation simulation;
  const auto first =
      simulation.createTCPConnection({"127.0.0.1", "8080"}, platform::TLSPolicy::disabled);
  auto second = simulation.createTCPConnection({"::1", "1"}, platform::TLSPolicy::enabled);
  ASSERT_EQ(simulation.connectionCount(), 2U);
  EXPECT_EQ(simulation.connection(0), first);
  EXPECT_EQ(simulation.connectionEndpoint(0), (platform::HostEndpoint{"127.0.0.1", "8080"}));
  EXPECT_EQ(simulation.connectionTLS(0), platform::TLSPolicy::disabled);
  EXPECT_EQ(simulation.connectionEndpoint(1), (platform::HostEndpoint{"::1", "1"}));
  EXPECT_EQ(simulation.connectionTLS(1), platform::TLSPolicy::enabled);
  EXPECT_EQ(simulation.connection(1)->name(), "connection 2");
  second.reset();
  EXPECT_EQ(simulation.connection(1), nullptr);
  EXPECT_EQ(simulation.peer(1)->name(), "connection 2");
}

TEST(SimulationTest, AConnectionMayBeDecidedWhenItIsMade) {
  Simulation simulation;
  simulation.onConnectionCreated([](SimulatedTCPConnection& connection) {
    connection.setState(platform::TCPConnectionState::connected);
  });
  const auto connection =
      simulation.createTCPConnection({"127.0.0.1", "8080"}, platform::TLSPolicy::disabled);
  EXPECT_EQ(connection->state(), platform::TCPConnectionState::connected);
}

TEST(SimulationTest, TheProtocolConfigurationIsSettable) {
  Simulation simulation;
  EXPECT_FALSE(simulation.protocolConfiguration());
  simulation.setProtocolConfiguration(
      platform::TunnelProviderProtocol{{{{"monitoringSocketPath", std::string("/s")}}}});
  EXPECT_EQ(simulation.protocolConfiguration()->providerConfiguration->at("monitoringSocketPath"),
            platform::ConfigurationValue(std::string("/s")));
}

TEST(SimulationTest, PendingWorkIsDroppedWithItsCycles) {
  struct Tunnel {
    std::shared_ptr<platform::TCPConnection> connection;
    std::shared_ptr<platform::DispatchQueue> queue;
    std::shared_ptr<platform::DispatchTimer> timer;
  };
  std::weak_ptr<Tunnel> weakTunnel;
  bool ran = false;
  {
    Simulation simulation;
    const auto tunnel = std::make_shared<Tunnel>();
    weakTunnel = tunnel;
    tunnel->connection =
        simulation.createTCPConnection({"127.0.0.1", "8080"}, platform::TLSPolicy::disabled);
    tunnel->queue = simulation.makeQueue("q", platform::DispatchQueueKind::serial);
    tunnel->timer = simulation.makeTimer(tunnel->queue);
    tunnel->timer->schedule(1s, 1s, 0ns);
    tunnel->timer->resume();
    tunnel->connection->write(platform::Data::copyOf("x"),
                              [tunnel, &ran](const auto&) { ran = true; });
    tunnel->queue->async([tunnel, &ran] { ran = true; });
  }
  EXPECT_TRUE(weakTunnel.expired());
  EXPECT_FALSE(ran);
}

// A small relay between a flow and a connection, enough to show everything that a seed decides.
class Relay {
 public:
  explicit Relay(const SimulationOptions& options) : simulation_(options) {
    flow_ = simulation_.makeTCPFlow("app", {{"example.com", "443"}});
    connection_ =
        simulation_.createTCPConnection({"127.0.0.1", "8080"}, platform::TLSPolicy::disabled);
    simulation_.connection(0)->accept();
    flow_->open(std::nullopt, [this](const platform::OptionalError& error) {
      if (!error) {
        up();
        down();
      }
    });
    flow_->application()->send("a request of the application");
    flow_->application()->endSending();
    simulation_.peer(0)->send("an answer of the peer, which is longer");
    simulation_.peer(0)->endSending();
    simulation_.advance(10s);
  }

  const std::vector<std::string>& journal() { return simulation_.journal().lines(); }
  const std::string& upstream() { return simulation_.peer(0)->received(); }
  const std::string& downstream() { return flow_->application()->received(); }

 private:
  void up() {
    flow_->read([this](std::optional<platform::Data> data, const platform::OptionalError& error) {
      if (error || !data || data->empty()) {
        return;
      }
      connection_->write(std::move(*data), [this](const platform::OptionalError& failure) {
        if (!failure) {
          up();
        }
      });
    });
  }
  void down() {
    connection_->read(
        1, 4096, [this](std::optional<platform::Data> data, const platform::OptionalError& error) {
          if (error || !data || data->empty()) {
            return;
          }
          flow_->write(std::move(*data), [this](const platform::OptionalError& failure) {
            if (!failure) {
              down();
            }
          });
        });
  }

  Simulation simulation_;
  std::shared_ptr<SimulatedTCPFlow> flow_;
  std::shared_ptr<platform::TCPConnection> connection_;
};

SimulationOptions seeded(std::uint64_t seed, const FaultPlan& faults = {}) {
  return {.order = RunOrder::seeded, .seed = seed, .faults = faults};
}

constexpr FaultPlan kEveryFault{.latency = 0.3,
                                .shortRead = 0.5,
                                .readError = 0.1,
                                .writeError = 0.1,
                                .openError = 0.1,
                                .connectRefusal = 0.1};

TEST(SimulationTest, TheSameSeedIsTheSameRun) {
  for (std::uint64_t seed = 0; seed < 50; ++seed) {
    EXPECT_EQ(Relay(seeded(seed, kEveryFault)).journal(),
              Relay(seeded(seed, kEveryFault)).journal());
  }
}

TEST(SimulationTest, SeedsGiveDifferentRuns) {
  std::set<std::vector<std::string>> runs;
  for (std::uint64_t seed = 0; seed < 50; ++seed) {
    runs.insert(Relay(seeded(seed)).journal());
  }
  EXPECT_GT(runs.size(), 25U);
}

TEST(SimulationTest, TheFixedOrderDoesNotDependOnTheSeed) {
  EXPECT_EQ(Relay({.seed = 1, .faults = {}}).journal(), Relay({.seed = 2, .faults = {}}).journal());
}

TEST(SimulationTest, OrderAndLatencyAndShortReadsLoseNothing) {
  const FaultPlan harmless{.latency = 0.5, .shortRead = 0.9};
  for (std::uint64_t seed = 0; seed < 200; ++seed) {
    Relay relay(seeded(seed, harmless));
    // The peer's end may be read first, which disconnects it.
    ASSERT_EQ(relay.downstream(), "an answer of the peer, which is longer") << seed;
    ASSERT_EQ(std::string("a request of the application").find(relay.upstream()), 0U) << seed;
  }
}

TEST(SimulationTest, DisablingTheJournalDoesNotChangeTheRun) {
  auto options = seeded(3, kEveryFault);
  Relay with(options);
  options.keepsJournal = false;
  Relay without(options);
  EXPECT_TRUE(without.journal().empty());
  EXPECT_EQ(with.upstream(), without.upstream());
  EXPECT_EQ(with.downstream(), without.downstream());
}

}  // namespace
}  // namespace ostravel::simulation
