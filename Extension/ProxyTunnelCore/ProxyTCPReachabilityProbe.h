#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "Extension/ProxyTunnelCore/ProxyHealthMonitor.h"
#include "Platform/Interface/SocketCalls.h"

namespace ostravel {

// Tests whether a TCP connection to the local proxy succeeds: opens one, sends nothing, and closes
// it at once. Has no mutable state; usable from any thread.
class ProxyTCPReachabilityProbe {
 public:
  // host is an IPv4 dotted quad; anything else is unreachable, because names are never resolved.
  ProxyTCPReachabilityProbe(platform::SocketCalls& sockets, std::string host, std::uint16_t port,
                            std::chrono::duration<double> timeout);

  // Blocks the caller for at most the time-out and the duration of the socket calls.
  ProxyHealthProbeResult check() const;

 private:
  bool connects(int descriptor) const;

  platform::SocketCalls& sockets_;
  const std::string host_;
  const std::uint16_t port_;
  const std::chrono::duration<double> timeout_;
};

}  // namespace ostravel
