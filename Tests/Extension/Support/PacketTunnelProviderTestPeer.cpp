#include "Tests/Extension/Support/PacketTunnelProviderTestPeer.h"

#include <limits>

namespace ostravel {

using FlowAction = PacketTunnelProvider::FlowAction;

const std::unordered_set<std::string>& PacketTunnelProviderTestPeer::bypassAppIds() const {
  return provider_.bypassAppIds_;
}

const std::vector<std::string>& PacketTunnelProviderTestPeer::hardBypassDomains() const {
  return provider_.hardBypassDomains_.entries();
}

const std::vector<std::string>& PacketTunnelProviderTestPeer::realtimeMediaDomains() const {
  return provider_.realtimeMediaDomains_.entries();
}

const std::vector<std::string>& PacketTunnelProviderTestPeer::udpQuicPolicyDomains() const {
  return provider_.udpQuicPolicyDomains_.entries();
}

const std::string& PacketTunnelProviderTestPeer::proxyHost() const {
  return provider_.proxyHost_;
}

unsigned PacketTunnelProviderTestPeer::proxyPort() const {
  return provider_.proxyPort_;
}

double PacketTunnelProviderTestPeer::connectHandshakeTimeoutSeconds() const {
  return provider_.connectHandshakeTimeoutSeconds_;
}

bool PacketTunnelProviderTestPeer::httpsOnlyMode() const {
  return provider_.httpsOnlyMode_;
}

ProxySafetyGate& PacketTunnelProviderTestPeer::gate() {
  return *provider_.proxySafetyGate_;
}

ProxyTunnelAdmissionController& PacketTunnelProviderTestPeer::admission() {
  return provider_.tunnelAdmissionController_;
}

bool PacketTunnelProviderTestPeer::hasHealthTimer() const {
  return provider_.proxyHealthTimer_ != nullptr;
}

bool PacketTunnelProviderTestPeer::hasHealthMonitor() const {
  return provider_.proxyHealthMonitor_.has_value();
}

bool PacketTunnelProviderTestPeer::hasReachabilityProbe() const {
  return provider_.proxyReachabilityProbe_.has_value();
}

void PacketTunnelProviderTestPeer::startHealthMonitoring() {
  provider_.startProxyHealthMonitoring();
}

void PacketTunnelProviderTestPeer::stopHealthMonitoring() {
  provider_.stopProxyHealthMonitoring();
}

std::size_t PacketTunnelProviderTestPeer::activeTunnelCount() const {
  return provider_.activeTunnels_.size();
}

std::shared_ptr<OVTunnelConnection> PacketTunnelProviderTestPeer::activeTunnel(
    const std::string& flowId) const {
  const auto found = provider_.activeTunnels_.find(flowId);
  return found == provider_.activeTunnels_.end() ? nullptr : found->second;
}

std::shared_ptr<OVTunnelConnection> PacketTunnelProviderTestPeer::someActiveTunnel() const {
  return provider_.activeTunnels_.empty() ? nullptr : provider_.activeTunnels_.begin()->second;
}

std::size_t PacketTunnelProviderTestPeer::cacheSize() const {
  return provider_.bypassCache_.size();
}

void PacketTunnelProviderTestPeer::addCacheEntry(const std::string& key, FlowAction action,
                                                 double expiry) {
  // Before any expiry: nothing is swept.
  provider_.bypassCache_.store(key, action, expiry, std::numeric_limits<double>::lowest());
}

std::optional<FlowAction> PacketTunnelProviderTestPeer::cachedAction(const std::string& key) const {
  const auto* const entry = provider_.bypassCache_.find(key);
  return entry == nullptr ? std::nullopt : std::optional(entry->decision);
}

std::optional<double> PacketTunnelProviderTestPeer::cachedExpiry(const std::string& key) const {
  const auto* const entry = provider_.bypassCache_.find(key);
  return entry == nullptr ? std::nullopt : std::optional(entry->expiry);
}

FlowAction PacketTunnelProviderTestPeer::applySafetyGate(FlowAction action, bool isUDP) const {
  return provider_.applyProxySafetyGate(action, isUDP);
}

}  // namespace ostravel
