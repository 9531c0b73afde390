#include "Extension/ProxyTunnelCore/ProxyHealthMonitor.h"

#include <utility>

namespace ostravel {

namespace {

// If the first result is reachable, the gate opens without an event: no outage was reported before.
std::optional<ProxyHealthEvent> eventFor(std::optional<ProxyHealthProbeResult> previous,
                                         ProxyHealthProbeResult result) {
  if (previous == result) {
    return std::nullopt;
  }
  if (result == ProxyHealthProbeResult::unreachable) {
    return ProxyHealthEvent::proxyUnavailable;
  }
  return previous ? std::optional(ProxyHealthEvent::proxyRecovered) : std::nullopt;
}

}  // namespace

ProxyHealthMonitor::ProxyHealthMonitor(std::shared_ptr<ProxySafetyGate> gate, EventHandler onEvent)
    : gate_(std::move(gate)), onEvent_(std::move(onEvent)) {}

void ProxyHealthMonitor::recordProbeResult(ProxyHealthProbeResult result) {
  const auto previous = std::exchange(lastResult_, result);
  gate_->setProxyUnavailable(result == ProxyHealthProbeResult::unreachable);
  const auto event = eventFor(previous, result);
  if (event && onEvent_) {
    onEvent_(*event);
  }
}

}  // namespace ostravel
