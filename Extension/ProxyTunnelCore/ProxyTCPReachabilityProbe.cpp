#include "Extension/ProxyTunnelCore/ProxyTCPReachabilityProbe.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "Extension/ProxyTunnelCore/SocketAddress.h"

namespace ostravel {

ProxyTCPReachabilityProbe::ProxyTCPReachabilityProbe(platform::SocketCalls& sockets,
                                                     std::string host, std::uint16_t port,
                                                     std::chrono::duration<double> timeout)
    : sockets_(sockets), host_(std::move(host)), port_(port), timeout_(timeout) {}

ProxyHealthProbeResult ProxyTCPReachabilityProbe::check() const {
  const auto opened = sockets_.socket(AF_INET, SOCK_STREAM, 0);
  if (opened.value < 0) {
    return ProxyHealthProbeResult::unreachable;
  }
  const int descriptor = static_cast<int>(opened.value);
  const bool reachable = connects(descriptor);
  sockets_.close(descriptor);
  return reachable ? ProxyHealthProbeResult::reachable : ProxyHealthProbeResult::unreachable;
}

bool ProxyTCPReachabilityProbe::connects(int descriptor) const {
  const auto flags = sockets_.statusFlags(descriptor);
  if (flags.value < 0) {
    return false;
  }
  if (sockets_.setStatusFlags(descriptor, static_cast<int>(flags.value) | O_NONBLOCK).value < 0) {
    return false;
  }
  const auto address = makeIPv4SocketAddress(sockets_.addressLayout(), host_, port_);
  if (!address) {
    return false;
  }
  const auto connected = sockets_.connect(descriptor, *address);
  if (connected.value == 0) {
    return true;
  }
  if (connected.error != EINPROGRESS) {
    return false;
  }
  const auto wait = std::chrono::round<std::chrono::milliseconds>(timeout_);
  if (sockets_.pollWritable(descriptor, wait).value < 1) {
    return false;
  }
  return sockets_.pendingError(descriptor).value == 0;
}

}  // namespace ostravel
