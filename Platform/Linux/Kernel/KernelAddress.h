#pragma once

#include <sys/socket.h>

#include <optional>

#include "Platform/Interface/HostEndpoint.h"
#include "Platform/Linux/Kernel/FlowTuple.h"

namespace ostravel::linuxplatform {

// A socket address in the kernel's format (ip(7), ipv6(7)).
struct KernelAddress {
  sockaddr_storage storage{};
  socklen_t size = sizeof(sockaddr_storage);

  // Empty, with room for any address that a call fills in.
  KernelAddress() = default;
  explicit KernelAddress(const SocketEndpoint& endpoint);

  sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }

  // Empty for a family other than IPv4 and IPv6, and if the address is not complete.
  std::optional<SocketEndpoint> endpoint() const;
};

// The addresses of a socket (getsockname(2), getpeername(2)); empty with errno if the kernel does
// not say.
std::optional<SocketEndpoint> ownAddressOf(int descriptor);
std::optional<SocketEndpoint> peerAddressOf(int descriptor);

// Empty unless the endpoint is an address literal, without brackets or zone, and a decimal port
// from 1 to 65535.
std::optional<SocketEndpoint> parseAddressLiteral(const platform::HostEndpoint& endpoint);

}  // namespace ostravel::linuxplatform
