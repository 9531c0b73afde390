#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Interface/Platform.h"
#include "Platform/Interface/TransparentProxyProvider.h"
#include "Platform/Shared/ICUTextServices.h"
#include "Platform/Simulation/FaultPlan.h"
#include "Platform/Simulation/RunState.h"
#include "Platform/Simulation/Schedule/SimulatedClock.h"
#include "Platform/Simulation/Schedule/SimulatedLog.h"
#include "Platform/Simulation/Schedule/SimulatedUUIDSource.h"
#include "Platform/Simulation/SimulatedSockets.h"
#include "Platform/Simulation/SimulatedTCPConnection.h"
#include "Platform/Simulation/SimulatedTCPFlow.h"
#include "Platform/Simulation/SimulatedUDPFlow.h"

namespace ostravel::simulation {

struct SimulationOptions {
  RunOrder order = RunOrder::fixed;
  // Decides everything that is random: the seeded order, the faults and the identifiers.
  std::uint64_t seed = 1;
  FaultPlan faults;
  std::optional<std::string> mainBundleIdentifier = "com.ostravel.simulation";
  // See Journal.
  bool keepsJournal = true;
};

// A complete platform and a provider's context in one object: virtual time, one run queue, and
// applications, peers and socket calls that the test controls. The same options and the same calls
// give the same run, down to the order of every completion.
//
//   Simulation simulation;
//   const auto provider = std::make_shared<PacketTunnelProvider>(simulation, simulation);
//   simulation.sockets().proxyListening(true);
//   provider->startProxy(...);
//   simulation.advance(1s);
//
// Nothing runs unless run(), advance() or runUntil() is called, or something waits for it in a sync
// call. One thread for everything: neither the simulation nor anything that it made may be used
// from a second one. Outlives everything that it made; what has not run when it is destroyed is
// dropped.
//
// Misuse of the seam, such as a second outstanding read, throws std::logic_error out of the
// offending call, and with it out of run().
class Simulation final : public platform::Platform, public platform::ProviderContext {
 public:
  explicit Simulation(const SimulationOptions& options = {});
  ~Simulation() override;

  // --- The run.

  // Virtual time since the run began.
  std::chrono::nanoseconds now() const { return run_.queue.now(); }
  // Runs one item; false when none can run now.
  bool runOne() { return run_.queue.runOne(); }
  // Runs until nothing can run; virtual time does not pass.
  void run() { run_.queue.run(); }
  // Runs, and lets this much virtual time pass, moment by moment.
  void advance(std::chrono::nanoseconds duration) { run_.queue.advance(duration); }
  // Simulates a slow item: time passes and nothing else happens.
  void spend(std::chrono::nanoseconds duration) { run_.queue.spend(duration); }
  // Runs, and lets time pass when nothing else can happen, until the predicate holds; false when it
  // does not within the limit.
  bool runUntil(const std::function<bool()>& predicate, std::chrono::nanoseconds limit) {
    return run_.queue.runUntil(predicate, limit);
  }
  // From now on.
  void setFaults(const FaultPlan& faults) { run_.faults.setPlan(faults); }
  // An item outside all queues, for a step of the test among the others.
  void post(std::function<void()> work) { run_.queue.post(std::move(work)); }

  // --- Records.

  Journal& journal() { return run_.journal; }
  // Every line of every log handle and of the default log, in order.
  const std::vector<LogRecord>& logRecords() const { return logRecords_; }
  // Their texts only.
  std::vector<std::string> logLines() const;
  std::vector<std::string> logLines(platform::LogLevel level) const;
  const std::vector<std::string>& systemLogLines() const { return systemLogLines_; }

  // --- Applications.

  // Named "flow 1", "flow 2" and so on. An absent endpoint is one that is not a host and a port.
  std::shared_ptr<SimulatedTCPFlow> makeTCPFlow(
      std::string signingIdentifier, std::optional<platform::HostEndpoint> remoteEndpoint);
  std::shared_ptr<SimulatedUDPFlow> makeUDPFlow(
      std::string signingIdentifier, std::optional<platform::HostEndpoint> localEndpoint);

  // --- The provider's context.

  // All requests so far. A request succeeds unless the test says otherwise.
  const std::vector<platform::TransparentProxyNetworkSettings>& networkSettings() const {
    return networkSettings_;
  }
  // Later requests are answered with this.
  void answerNetworkSettings(platform::OptionalError error);
  // Later requests are answered only by completeNetworkSettings, oldest first; it throws
  // std::logic_error when there is none.
  void holdNetworkSettings();
  void completeNetworkSettings(platform::OptionalError error);

  void setProtocolConfiguration(std::optional<platform::TunnelProviderProtocol> configuration);

  // The requested connections, by number from zero. The connection itself is the provider's, and
  // null when it is destroyed; its peer stays.
  std::size_t connectionCount() const { return connections_.size(); }
  std::shared_ptr<SimulatedTCPConnection> connection(std::size_t number) const;
  std::shared_ptr<SimulatedPeer> peer(std::size_t number) const;
  const platform::HostEndpoint& connectionEndpoint(std::size_t number) const;
  platform::TLSPolicy connectionTLS(std::size_t number) const;
  // Called inside every later createTCPConnection with what it returns, for a connection that is to
  // be accepted, refused or connected from the start.
  using ConnectionHandler = std::function<void(SimulatedTCPConnection&)>;
  void onConnectionCreated(ConnectionHandler handler);

  // --- Platform.

  std::shared_ptr<platform::DispatchQueue> makeQueue(std::string label,
                                                     platform::DispatchQueueKind kind) override;
  std::shared_ptr<platform::DispatchTimer> makeTimer(
      std::shared_ptr<platform::DispatchQueue> queue) override;
  std::shared_ptr<platform::Log> makeLog(std::string subsystem, std::string category) override;
  platform::Log& defaultLog() override { return defaultLog_; }
  void systemLog(std::string_view line) override;
  std::optional<std::string> mainBundleIdentifier() const override;
  const platform::Clock& clock() const override { return clock_; }
  platform::UUIDSource& uuidSource() override { return uuidSource_; }
  const platform::TextServices& text() const override { return text_; }
  SimulatedSockets& sockets() override { return sockets_; }

  // --- ProviderContext.

  void setTunnelNetworkSettings(platform::TransparentProxyNetworkSettings settings,
                                platform::ErrorCompletion completion) override;
  // Named "connection 1", "connection 2" and so on.
  std::shared_ptr<platform::TCPConnection> createTCPConnection(
      const platform::HostEndpoint& endpoint, platform::TLSPolicy tls) override;
  std::optional<platform::TunnelProviderProtocol> protocolConfiguration() const override;

 private:
  struct CreatedConnection {
    platform::HostEndpoint endpoint;
    platform::TLSPolicy tls;
    std::weak_ptr<SimulatedTCPConnection> connection;
    std::shared_ptr<SimulatedPeer> peer;
  };

  void deliverNetworkSettings(platform::ErrorCompletion completion, platform::OptionalError error);

  RunState run_;
  const std::optional<std::string> mainBundleIdentifier_;
  const SimulatedClock clock_;
  platform::ICUTextServices text_;
  SimulatedUUIDSource uuidSource_;
  SimulatedSockets sockets_;
  std::vector<LogRecord> logRecords_;
  SimulatedLog defaultLog_;
  std::vector<std::string> systemLogLines_;

  std::size_t flowCount_ = 0;
  // For dropping outstanding completions at the end of the run.
  std::vector<std::weak_ptr<SimulatedTCPFlow>> flows_;

  std::vector<platform::TransparentProxyNetworkSettings> networkSettings_;
  platform::OptionalError networkSettingsAnswer_;
  bool holdingNetworkSettings_ = false;
  std::vector<platform::ErrorCompletion> heldNetworkSettings_;
  std::optional<platform::TunnelProviderProtocol> protocolConfiguration_;
  std::vector<CreatedConnection> connections_;
  ConnectionHandler connectionHandler_;
};

}  // namespace ostravel::simulation
