#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Extension/FilterDataProvider/OVTunnelConnection.h"
#include "Platform/Simulation/Simulation.h"
#include "Tests/Extension/Support/MonitoringRecord.h"
#include "Tests/Extension/Support/PacketTunnelProviderTestPeer.h"

namespace ostravel::test {

// A tunnel between a simulated flow, which is open, and a simulated connection, which is still
// connecting. Besides the lines of flow and connection, it records in the journal, in order:
//
//   established ID | proxy unavailable | closed ID     the tunnel's callbacks
//   event SIGNAL                                       when the event is emitted
class TunnelTest : public testing::Test {
 protected:
  struct Setup {
    std::string appId = "com.example.app";
    std::string flowId = "FLOW";
    std::optional<platform::HostEndpoint> remoteEndpoint =
        platform::HostEndpoint{"192.0.2.10", "443"};
    double handshakeTimeout = 5.0;
    // Instead of the simulated ones.
    std::shared_ptr<platform::AppProxyTCPFlow> flow = nullptr;
    std::shared_ptr<platform::TCPConnection> connection = nullptr;
    // Set to false for a tunnel without callbacks.
    bool withCallbacks = true;
  };

  static constexpr std::string_view kSuccess = "HTTP/1.1 200 Connection established\r\n\r\n";
  // The whole request of the default setup.
  static const std::string kRequest;

  TunnelTest();
  explicit TunnelTest(const simulation::SimulationOptions& options);

  // Makes the flow, the connection and the tunnel; empties the journal. Does not start it.
  void make(const Setup& setup);
  void make() { make(Setup{}); }

  // Each starts where the one before it ends; all run what can run.
  void start();
  void startAndConnect();
  void establish();

  simulation::SimulatedPeer& application() { return *flow_->application(); }
  simulation::SimulatedPeer& proxy() { return *connection_->peer(); }
  std::vector<std::string> journal() { return simulation_.journal().lines(); }
  void clearJournal() { simulation_.journal().clear(); }

  // Every event emitted so far, and those with this signal.
  const std::vector<MonitoringRecord>& records() const { return records_; }
  std::vector<EventFacts> events() const;
  std::vector<EventFacts> events(std::string_view signal) const;
  std::vector<std::string> signals() const;
  // The last line that was logged before the event with this signal was emitted.
  std::string lineLoggedBefore(std::string_view signal) const;
  PacketTunnelProviderTestPeer::WatchdogState watchdogState() const {
    return PacketTunnelProviderTestPeer::stateOf(*tunnel_->handshakeWatchdog());
  }

  simulation::Simulation simulation_;
  std::shared_ptr<simulation::SimulatedTCPFlow> flow_;
  std::shared_ptr<simulation::SimulatedTCPConnection> connection_;
  std::shared_ptr<OVTunnelConnection> tunnel_;
  // State of the watchdog, and whether the connection was observed, seen in the last callback.
  std::optional<PacketTunnelProviderTestPeer::WatchdogState> watchdogSeen_;
  std::optional<bool> observedSeen_;

 private:
  std::shared_ptr<ProxyTunnelMonitoringClient> makeMonitoringClient();
  void look();

  std::vector<MonitoringRecord> records_;
  std::vector<std::string> lineLoggedBefore_;
};

// An error that no platform defines.
platform::Error someError(const std::string& description = "Something broke");

}  // namespace ostravel::test
