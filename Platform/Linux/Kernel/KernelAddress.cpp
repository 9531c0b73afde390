#include "Platform/Linux/Kernel/KernelAddress.h"

#include <netinet/in.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "Base/ParseNumber.h"

namespace ostravel::linuxplatform {

namespace {

template <typename AddressOf>
std::optional<SocketEndpoint> endpointOf(int descriptor, AddressOf addressOf) {
  KernelAddress address;
  if (addressOf(descriptor, address.get(), &address.size) != 0) {
    return std::nullopt;
  }
  const auto endpoint = address.endpoint();
  if (!endpoint) {
    errno = EPROTO;
  }
  return endpoint;
}

}  // namespace

KernelAddress::KernelAddress(const SocketEndpoint& endpoint) {
  if (endpoint.family == AddressFamily::ipv4) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(endpoint.port);
    std::memcpy(&address.sin_addr, endpoint.address.data(), sizeof address.sin_addr);
    std::memcpy(&storage, &address, sizeof address);
    size = sizeof address;
  } else {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(endpoint.port);
    std::memcpy(&address.sin6_addr, endpoint.address.data(), sizeof address.sin6_addr);
    std::memcpy(&storage, &address, sizeof address);
    size = sizeof address;
  }
}

std::optional<SocketEndpoint> KernelAddress::endpoint() const {
  // The two families do the same with types that have no member in common.
  SocketEndpoint endpoint;
  if (storage.ss_family == AF_INET && size >= sizeof(sockaddr_in)) {
    sockaddr_in address{};
    std::memcpy(&address, &storage, sizeof address);
    endpoint.family = AddressFamily::ipv4;
    endpoint.port = ntohs(address.sin_port);
    std::memcpy(endpoint.address.data(), &address.sin_addr, sizeof address.sin_addr);
    return endpoint;
  }
  if (storage.ss_family == AF_INET6 && size >= sizeof(sockaddr_in6)) {
    sockaddr_in6 address{};
    std::memcpy(&address, &storage, sizeof address);
    endpoint.family = AddressFamily::ipv6;
    endpoint.port = ntohs(address.sin6_port);
    std::memcpy(endpoint.address.data(), &address.sin6_addr, sizeof address.sin6_addr);
    return endpoint;
  }
  return std::nullopt;
}

std::optional<SocketEndpoint> ownAddressOf(int descriptor) {
  return endpointOf(descriptor, ::getsockname);
}

std::optional<SocketEndpoint> peerAddressOf(int descriptor) {
  return endpointOf(descriptor, ::getpeername);
}

std::optional<SocketEndpoint> parseAddressLiteral(const platform::HostEndpoint& endpoint) {
  auto parsed = SocketEndpoint::atAddress(endpoint.hostname);
  const auto port = parseNumber<std::uint16_t>(endpoint.port);
  if (!parsed || !port || *port == 0) {
    return std::nullopt;
  }
  parsed->port = *port;
  return parsed;
}

}  // namespace ostravel::linuxplatform
