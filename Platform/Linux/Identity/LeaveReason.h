#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace ostravel::linuxplatform {

// Why a flow is left to the system instead of being offered.
enum class LeaveReason : std::uint8_t {
  // The process is near its descriptor limit.
  descriptors,
  // The user has used up its share of the pending handshakes, of the descriptors, or, while other
  // users are active, of the offers per second.
  handshakeShare,
  descriptorShare,
  offerShare,
  // A handshake of the user has timed out, and another one is testing whether the proxy answers.
  onTrial,
  // A relay could not carry it as the application intends: a packet of the kernel, a socket that is
  // bound to an interface, an address family without a listener.
  kernelSocket,
  notCarried,
  noListener,
  // Redirected connections do not arrive, or have not been tested yet.
  redirectPath,
  // It may be a flow of the local proxy itself, which must never be sent to the proxy.
  proxyUnknown,
  // The program on the local proxy's port is not a proxy, not trusted with this user's flows, or
  // not yet tested.
  proxyNotTrusted,
  // It may be the proxy's: a flow of another process to the same destination is held.
  mayBelongToProxy,
  // Its process would have to be searched for, and the time for such searches is used up.
  searchBudget,
  // The kernel does not report which socket sent it.
  diagnosticsFailed,
};
inline constexpr std::size_t kLeaveReasons =
    static_cast<std::size_t>(LeaveReason::diagnosticsFailed) + 1;

// A name for logs and counters: words joined by underscores.
std::string_view nameOf(LeaveReason reason);

}  // namespace ostravel::linuxplatform
