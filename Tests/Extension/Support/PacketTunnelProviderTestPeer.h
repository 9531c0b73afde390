#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#include "Extension/ProxyTunnelCore/ProxyTunnelHandshakeWatchdog.h"

namespace ostravel {

// What the tests of the provider, its admission controller and its watchdogs cannot see from
// outside: their states, what they keep about tunnels, and the cache, which tests also fill.
class PacketTunnelProviderTestPeer {
 public:
  explicit PacketTunnelProviderTestPeer(PacketTunnelProvider& provider) : provider_(provider) {}

  // The established tunnels that a controller has not forgotten.
  static std::size_t establishedCount(const ProxyTunnelAdmissionController& controller);

  using WatchdogState = ProxyTunnelHandshakeWatchdog::State;
  static WatchdogState stateOf(const ProxyTunnelHandshakeWatchdog& watchdog);

  const ProxyTunnelAdmissionController& admission() const;
  std::size_t establishedCount() const { return establishedCount(admission()); }
  std::size_t activeTunnelCount() const;
  // Takes this many handshake slots for flows that never end, so that few are left.
  void occupyHandshakeSlots(std::size_t count);
  // A probe of the local proxy between those of the health loop.
  void probe();

  std::size_t cacheSize() const;
  void addCacheEntry(const std::string& key, PacketTunnelProvider::FlowAction action,
                     double expiry);
  std::optional<PacketTunnelProvider::FlowAction> cachedAction(const std::string& key) const;
  std::optional<double> cachedExpiry(const std::string& key) const;

 private:
  PacketTunnelProvider& provider_;
};

}  // namespace ostravel
