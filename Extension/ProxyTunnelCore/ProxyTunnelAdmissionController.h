#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_set>

#include "Platform/Interface/SystemLimits.h"

namespace ostravel {

// Limits how many tunnels may be in the CONNECT handshake at once, so that a burst of new flows
// while the local proxy is slow cannot pile up. Established tunnels do not count. Owned by the
// provider for its whole life; usable from any thread.
class ProxyTunnelAdmissionController {
 public:
  static constexpr std::size_t maxPendingHandshakes = platform::limits::kMaxPendingHandshakes;

  // True when the flow was admitted to the pending set, and for a flow that is known already, even
  // when the set is full.
  bool tryAcquireHandshakeSlot(const std::string& flowId);

  // Moves the flow to the established set, whether or not it was pending.
  void markEstablished(const std::string& flowId);

  // Forgets the flow; harmless for one that is not known.
  void release(const std::string& flowId);

  std::size_t pendingCount() const;
  std::size_t establishedCount() const;

 private:
  mutable std::mutex lock_;
  std::unordered_set<std::string> pendingHandshakeIDs_;
  std::unordered_set<std::string> establishedTunnelIDs_;
};

}  // namespace ostravel
