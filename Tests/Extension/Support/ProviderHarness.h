#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#include "Platform/Simulation/Simulation.h"
#include "Tests/Extension/Support/MonitoringRecord.h"
#include "Tests/Extension/Support/PacketTunnelProviderTestPeer.h"

namespace ostravel::test {

// A provider on the simulation, with a companion that listens on the monitoring socket and a local
// proxy that listens as well. The provider is not started.
class ProviderHarness {
 public:
  static constexpr const char* kSocketPath = "/tmp/m.sock";
  static constexpr std::string_view kSuccess = "HTTP/1.1 200 OK\r\n\r\n";

  explicit ProviderHarness(const simulation::SimulationOptions& options = {});

  // A configuration whose monitoring socket path has this value; none without a value.
  void configure(std::optional<platform::ConfigurationValue> socketPath);

  // Starts the provider and runs what can run; the first probe opens the gate.
  void startProvider();
  // Stops it with a completion that records itself in the journal.
  void stopProvider(platform::ProviderStopReason reason);

  std::shared_ptr<simulation::SimulatedTCPFlow> makeFlow(
      const std::string& appId = "com.example.app",
      std::optional<platform::HostEndpoint> endpoint = platform::HostEndpoint{"example.org",
                                                                              "443"});
  // Hands a new flow of the default kind to the provider and runs what can run.
  std::shared_ptr<simulation::SimulatedTCPFlow> takeFlow();
  // Whether a flow that is not exempt would be left to the system now.
  bool bypassesNewFlows();
  // Lets the proxy accept and answer the connection with this number.
  void establish(std::size_t number);

  PacketTunnelProviderTestPeer peer() { return PacketTunnelProviderTestPeer(*provider_); }
  simulation::SimulatedSockets& sockets() { return simulation_.sockets(); }

  // What the companion has received, after everything that can run has run.
  std::vector<MonitoringRecord> records();
  std::vector<EventFacts> events();
  std::vector<EventFacts> events(std::string_view signal);
  std::vector<std::string> signals();

  simulation::Simulation simulation_;
  std::shared_ptr<PacketTunnelProvider> provider_;
};

}  // namespace ostravel::test
