#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "Extension/ProxyTunnelCore/ProxySafetyGate.h"

namespace ostravel {

enum class ProxyHealthProbeResult { reachable, unreachable };

enum class ProxyHealthEvent { proxyUnavailable, proxyRecovered };

// Turns probe results into the state of the safety gate and into at most one event per change of
// the probe's view. The gate also has another writer, a tunnel that fails, which raises no event;
// so the gate follows the latest probe while events follow the changes between probes.
// Used only on the provider's health queue, and has no lock for that reason.
class ProxyHealthMonitor {
 public:
  using EventHandler = std::function<void(ProxyHealthEvent)>;

  // onEvent may be empty; it is called synchronously from recordProbeResult.
  ProxyHealthMonitor(std::shared_ptr<ProxySafetyGate> gate, EventHandler onEvent);

  void recordProbeResult(ProxyHealthProbeResult result);

 private:
  std::shared_ptr<ProxySafetyGate> gate_;
  EventHandler onEvent_;
  std::optional<ProxyHealthProbeResult> lastResult_;
};

}  // namespace ostravel
