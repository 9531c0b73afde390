#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Interface/Platform.h"
#include "Platform/Interface/TransparentProxyProvider.h"
#include "Platform/Shared/ICUTextServices.h"
#include "Platform/Simulation/Schedule/SimulatedUUIDSource.h"
#include "Tests/Simulator/FlowScript.h"
#include "Tests/Simulator/ObservedQueue.h"
#include "Tests/Simulator/SimulatorSockets.h"
#include "Tests/Simulator/World.h"

namespace ostravel::simulator {

// The environment of the provider in a run, made of the simulation's parts. Every call of the core
// is recorded, and is a point at which the core can be preempted. Implements the seam itself rather
// than deriving from Simulation, whose parts cannot be observed.
class SimulatorPlatform final : public platform::Platform, public platform::ProviderContext {
 public:
  static constexpr std::string_view kMonitoringPath = "/run/monitor";

  // Returns the script of a flow, null if it no longer exists.
  using ScriptSource = std::function<FlowScript*(std::uint32_t flow)>;

  SimulatorPlatform(World& world, std::uint64_t seed, ScriptSource scriptOf);
  ~SimulatorPlatform() override;

  // The clock of the day is set by this much.
  void jumpClock(double seconds);
  void setMonitored(bool monitored) { isMonitored_ = monitored; }
  // While stalled, events wait.
  void stallMonitor(bool stalled);

  std::shared_ptr<platform::DispatchQueue> makeQueue(std::string label,
                                                     platform::DispatchQueueKind kind) override;
  std::shared_ptr<platform::DispatchTimer> makeTimer(
      std::shared_ptr<platform::DispatchQueue> queue) override;
  std::shared_ptr<platform::Log> makeLog(std::string subsystem, std::string category) override;
  platform::Log& defaultLog() override;
  void systemLog(std::string_view line) override;
  std::optional<std::string> mainBundleIdentifier() const override { return std::nullopt; }
  const platform::Clock& clock() const override;
  platform::UUIDSource& uuidSource() override;
  const platform::TextServices& text() const override { return text_; }
  SimulatorSockets& sockets() override { return sockets_; }

  void setTunnelNetworkSettings(platform::TransparentProxyNetworkSettings settings,
                                platform::ErrorCompletion completion) override;
  std::shared_ptr<platform::TCPConnection> createTCPConnection(
      const platform::HostEndpoint& endpoint, platform::TLSPolicy tls) override;
  std::optional<platform::TunnelProviderProtocol> protocolConfiguration() const override;

 private:
  class RunLog;
  class RunClock;
  class RunIdentifiers;

  World& world_;
  const ScriptSource scriptOf_;
  SimulatorSockets sockets_;
  platform::ICUTextServices text_;
  const std::shared_ptr<RunLog> log_;
  const std::unique_ptr<RunClock> clock_;
  const std::unique_ptr<RunIdentifiers> identifiers_;
  bool isMonitored_ = true;
  bool isMonitorStalled_ = false;
  std::weak_ptr<ObservedQueue> monitorQueue_;
};

}  // namespace ostravel::simulator
