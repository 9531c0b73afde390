#pragma once

#include <mutex>

namespace ostravel {

// The single switch that decides whether new flows may go to the local proxy at all. Owned by the
// provider, shared with the health monitor; usable from any thread.
class ProxySafetyGate {
 public:
  ProxySafetyGate(bool proxyUnavailable, bool networkUnavailable);

  void setProxyUnavailable(bool unavailable);

  // True while the local proxy or the network is considered down.
  bool shouldBypassNewFlows() const;

 private:
  mutable std::mutex lock_;
  bool proxyUnavailable_;
  // Reserved for a source of network state; not set yet.
  bool networkUnavailable_;
};

}  // namespace ostravel
