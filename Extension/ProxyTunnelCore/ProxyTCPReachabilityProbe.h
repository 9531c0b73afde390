#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "Extension/ProxyTunnelCore/ProxyHealthMonitor.h"
#include "Platform/Interface/SocketCalls.h"

namespace ostravel {

// Answers one question: does a TCP connection to the local proxy succeed right now? Opens a
// connection, sends nothing, and closes it at once. Has no mutable state; usable from any thread.
class ProxyTCPReachabilityProbe {
 public:
  // host is an IPv4 dotted quad: names are never resolved, anything else is unreachable.
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
