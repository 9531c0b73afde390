#include "Extension/ProxyTunnelCore/ProxyTunnelAdmissionController.h"

#include <utility>

namespace ostravel {

bool ProxyTunnelAdmissionController::tryAcquireHandshakeSlot(const FlowIdentifier& flowId) {
  const std::lock_guard guard(lock_);
  if (pendingHandshakeIDs_.contains(flowId) || establishedTunnelIDs_.contains(flowId)) {
    return true;
  }
  if (pendingHandshakeIDs_.size() >= maxPendingHandshakes) {
    return false;
  }
  pendingHandshakeIDs_.insert(flowId);
  return true;
}

void ProxyTunnelAdmissionController::markEstablished(const FlowIdentifier& flowId) {
  const std::lock_guard guard(lock_);
  if (auto pending = pendingHandshakeIDs_.extract(flowId)) {
    establishedTunnelIDs_.insert(std::move(pending));
  } else {
    establishedTunnelIDs_.insert(flowId);
  }
}

void ProxyTunnelAdmissionController::release(const FlowIdentifier& flowId) {
  const std::lock_guard guard(lock_);
  pendingHandshakeIDs_.erase(flowId);
  establishedTunnelIDs_.erase(flowId);
}

std::size_t ProxyTunnelAdmissionController::pendingCount() const {
  const std::lock_guard guard(lock_);
  return pendingHandshakeIDs_.size();
}

}  // namespace ostravel
