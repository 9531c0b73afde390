#pragma once

#include <sys/socket.h>

#include <optional>

#include "Platform/Interface/HostEndpoint.h"
#include "Platform/Linux/Kernel/FlowTuple.h"

namespace ostravel::linuxplatform {

// A socket address as the kernel's calls take and give it (ip(7), ipv6(7)).
struct KernelAddress {
  sockaddr_storage storage{};
  socklen_t size = sizeof(sockaddr_storage);

  // Room for whatever a call fills in.
  KernelAddress() = default;
  explicit KernelAddress(const SocketEndpoint& endpoint);

  sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }

  // Absent for a family that is neither IPv4 nor IPv6.
  std::optional<SocketEndpoint> endpoint() const;
};

// Absent unless the endpoint is an address literal, without brackets or zone, and a port from 1 to
// 65535 in decimal.
std::optional<SocketEndpoint> parseAddressLiteral(const platform::HostEndpoint& endpoint);

}  // namespace ostravel::linuxplatform
