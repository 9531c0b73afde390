#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace ostravel::linuxplatform {

// Why a flow is left to the system instead of being offered.
enum class LeaveReason : std::uint8_t {
  // The process is near its limit of descriptors.
  descriptors,
  // The user has its share of the pending handshakes, of the descriptors, or, while others want to
  // be served as well, of the offers per second.
  handshakeShare,
  descriptorShare,
  offerShare,
  // A handshake of the user has timed out, and another one is finding out whether the proxy
  // answers.
  onTrial,
  // A relay could not carry it as the application means it: a packet of the kernel's own, a socket
  // that is bound to an interface, a family of addresses for which there is no listener.
  kernelSocket,
  notCarried,
  noListener,
  // Released connections do not arrive, or it is not known yet whether they do.
  redirectPath,
  // It cannot be excluded that it is the local proxy's own, which must never be sent to the proxy
  // again.
  proxyUnknown,
  // What listens on the local proxy's port is no proxy, or none for this user, or has not shown yet
  // that it is one.
  proxyNotTrusted,
  // It may be the proxy's own: another process is held on its way to the same destination.
  mayBelongToProxy,
  // Its process would have to be searched for, and enough time has gone into such searches.
  searchBudget,
  // The kernel does not tell which socket it comes from.
  diagnosticsFailed,
};
inline constexpr std::size_t kLeaveReasons =
    static_cast<std::size_t>(LeaveReason::diagnosticsFailed) + 1;

// For logs and counters: words joined by underscores.
std::string_view nameOf(LeaveReason reason);

}  // namespace ostravel::linuxplatform
