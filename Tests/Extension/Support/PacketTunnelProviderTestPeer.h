#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"

namespace ostravel {

// What the tests of the provider cannot see from outside: what it keeps about its tunnels, and its
// cache, which they also fill.
class PacketTunnelProviderTestPeer {
 public:
  explicit PacketTunnelProviderTestPeer(PacketTunnelProvider& provider) : provider_(provider) {}

  const ProxyTunnelAdmissionController& admission() const;
  std::size_t activeTunnelCount() const;

  std::size_t cacheSize() const;
  void addCacheEntry(const std::string& key, PacketTunnelProvider::FlowAction action,
                     double expiry);
  std::optional<PacketTunnelProvider::FlowAction> cachedAction(const std::string& key) const;
  std::optional<double> cachedExpiry(const std::string& key) const;

 private:
  PacketTunnelProvider& provider_;
};

}  // namespace ostravel
