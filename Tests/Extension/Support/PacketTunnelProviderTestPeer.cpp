#include "Tests/Extension/Support/PacketTunnelProviderTestPeer.h"

#include <limits>
#include <mutex>
#include <string>

namespace ostravel {

using FlowAction = PacketTunnelProvider::FlowAction;

std::size_t PacketTunnelProviderTestPeer::establishedCount(
    const ProxyTunnelAdmissionController& controller) {
  const std::lock_guard guard(controller.lock_);
  return controller.establishedTunnelIDs_.size();
}

PacketTunnelProviderTestPeer::WatchdogState PacketTunnelProviderTestPeer::stateOf(
    const ProxyTunnelHandshakeWatchdog& watchdog) {
  const std::lock_guard guard(watchdog.lock_);
  return watchdog.state_;
}

const ProxyTunnelAdmissionController& PacketTunnelProviderTestPeer::admission() const {
  return provider_.tunnelAdmissionController_;
}

std::size_t PacketTunnelProviderTestPeer::activeTunnelCount() const {
  return provider_.activeTunnels_.size();
}

void PacketTunnelProviderTestPeer::occupyHandshakeSlots(std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    provider_.tunnelAdmissionController_.tryAcquireHandshakeSlot(
        FlowIdentifier("occupied " + std::to_string(i)));
  }
}

void PacketTunnelProviderTestPeer::probe() {
  provider_.probeProxyHealth();
}

std::size_t PacketTunnelProviderTestPeer::cacheSize() const {
  return provider_.bypassCache_.size();
}

void PacketTunnelProviderTestPeer::addCacheEntry(const std::string& key, FlowAction action,
                                                 double expiry) {
  // Before any expiry: nothing is swept. No test asks for the rule.
  provider_.bypassCache_.store(key, {action, platform::FlowRule::exemptHost}, expiry,
                               std::numeric_limits<double>::lowest());
}

std::optional<FlowAction> PacketTunnelProviderTestPeer::cachedAction(const std::string& key) const {
  const auto* const entry = provider_.bypassCache_.find(key);
  return entry == nullptr ? std::nullopt : std::optional(entry->decision.action);
}

std::optional<double> PacketTunnelProviderTestPeer::cachedExpiry(const std::string& key) const {
  const auto* const entry = provider_.bypassCache_.find(key);
  return entry == nullptr ? std::nullopt : std::optional(entry->expiry);
}

}  // namespace ostravel
