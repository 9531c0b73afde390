#pragma once

#include <cstddef>
#include <mutex>
#include <unordered_set>

#include "Base/FlowIdentifier.h"
#include "Platform/Interface/SystemLimits.h"

namespace ostravel {

// Limits the number of concurrent CONNECT handshakes, so that new flows cannot pile up while the
// local proxy is slow. Established tunnels do not count. Owned by the provider for its whole
// lifetime; usable from any thread.
class ProxyTunnelAdmissionController {
 public:
  static constexpr std::size_t maxPendingHandshakes = platform::limits::kMaxPendingHandshakes;

  // True if the flow was admitted to the pending set, or is already known, even if the set is full.
  bool tryAcquireHandshakeSlot(const FlowIdentifier& flowId);

  // Moves the flow to the established set, whether or not it was pending.
  void markEstablished(const FlowIdentifier& flowId);

  // Forgets the flow; does nothing for an unknown one.
  void release(const FlowIdentifier& flowId);

  std::size_t pendingCount() const;

 private:
  friend class PacketTunnelProviderTestPeer;

  using FlowIdentifiers = std::unordered_set<FlowIdentifier, FlowIdentifier::Hash>;

  mutable std::mutex lock_;
  FlowIdentifiers pendingHandshakeIDs_;
  FlowIdentifiers establishedTunnelIDs_;
};

}  // namespace ostravel
