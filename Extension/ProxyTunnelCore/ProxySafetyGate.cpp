#include "Extension/ProxyTunnelCore/ProxySafetyGate.h"

namespace ostravel {

ProxySafetyGate::ProxySafetyGate(bool proxyUnavailable, bool networkUnavailable)
    : proxyUnavailable_(proxyUnavailable), networkUnavailable_(networkUnavailable) {}

void ProxySafetyGate::setProxyUnavailable(bool unavailable) {
  const std::lock_guard guard(lock_);
  proxyUnavailable_ = unavailable;
}

bool ProxySafetyGate::shouldBypassNewFlows() const {
  const std::lock_guard guard(lock_);
  return proxyUnavailable_ || networkUnavailable_;
}

}  // namespace ostravel
