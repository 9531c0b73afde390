#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "Extension/ProxyTunnelCore/ProxySafetyGate.h"

namespace ostravel {

enum class ProxyHealthProbeResult { reachable, unreachable };

enum class ProxyHealthEvent { proxyUnavailable, proxyRecovered };

// Turns probe results into the state of the safety gate, and into at most one event per change of
// the results. A failing tunnel also sets the gate, without an event; so the gate follows the
// latest probe, whereas events follow the changes between probes. Used only on the provider's
// health queue, so it needs no lock.
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
