#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_set>

#include "Platform/Interface/SystemLimits.h"

namespace ostravel {

// Limits the number of concurrent CONNECT handshakes, so that new flows cannot pile up while the
// local proxy is slow. Established tunnels do not count. Owned by the provider for its whole
// lifetime; usable from any thread.
class ProxyTunnelAdmissionController {
 public:
  static constexpr std::size_t maxPendingHandshakes = platform::limits::kMaxPendingHandshakes;

  // True if the flow was admitted to the pending set, or is already known, even if the set is full.
  bool tryAcquireHandshakeSlot(const std::string& flowId);

  // Moves the flow to the established set, whether or not it was pending.
  void markEstablished(const std::string& flowId);

  // Forgets the flow; does nothing for an unknown one.
  void release(const std::string& flowId);

  std::size_t pendingCount() const;

 private:
  friend class PacketTunnelProviderTestPeer;

  mutable std::mutex lock_;
  std::unordered_set<std::string> pendingHandshakeIDs_;
  std::unordered_set<std::string> establishedTunnelIDs_;
};

}  // namespace ostravel
