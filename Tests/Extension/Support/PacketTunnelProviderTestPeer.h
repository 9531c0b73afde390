#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"

namespace ostravel {

// What the tests of the provider have to see, or to change, of its private state.
class PacketTunnelProviderTestPeer {
 public:
  explicit PacketTunnelProviderTestPeer(PacketTunnelProvider& provider) : provider_(provider) {}

  // Settings.
  const std::unordered_set<std::string>& bypassAppIds() const;
  const std::vector<std::string>& hardBypassDomains() const;
  const std::vector<std::string>& realtimeMediaDomains() const;
  const std::vector<std::string>& udpQuicPolicyDomains() const;
  const std::string& proxyHost() const;
  unsigned proxyPort() const;
  double connectHandshakeTimeoutSeconds() const;
  bool httpsOnlyMode() const;

  // Health.
  ProxySafetyGate& gate();
  ProxyTunnelAdmissionController& admission();
  bool hasHealthTimer() const;
  bool hasHealthMonitor() const;
  bool hasReachabilityProbe() const;
  void startHealthMonitoring();
  void stopHealthMonitoring();

  // Table of tunnels.
  std::size_t activeTunnelCount() const;
  std::shared_ptr<OVTunnelConnection> activeTunnel(const std::string& flowId) const;
  // Any one of them; null without one.
  std::shared_ptr<OVTunnelConnection> someActiveTunnel() const;

  // Cache of decisions.
  std::size_t cacheSize() const;
  void addCacheEntry(const std::string& key, PacketTunnelProvider::FlowAction action,
                     double expiry);
  std::optional<PacketTunnelProvider::FlowAction> cachedAction(const std::string& key) const;
  std::optional<double> cachedExpiry(const std::string& key) const;

  PacketTunnelProvider::FlowAction applySafetyGate(PacketTunnelProvider::FlowAction action,
                                                   bool isUDP) const;

 private:
  PacketTunnelProvider& provider_;
};

}  // namespace ostravel
