#include "Tests/Platform/Linux/Support/SocketTools.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/stat.h>

#include <cstring>

namespace ostravel::testing {

using linuxplatform::AddressFamily;
using linuxplatform::FlowTuple;
using linuxplatform::SocketEndpoint;
using linuxplatform::TransportProtocol;

SocketEndpoint loopbackIPv4(std::uint16_t port) {
  return {AddressFamily::ipv4, {127, 0, 0, 1}, port};
}

SocketEndpoint loopbackIPv6(std::uint16_t port) {
  return {AddressFamily::ipv6, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, port};
}

FlowTuple flowOverIPv4(TransportProtocol protocol, std::uint16_t source,
                       std::uint16_t destination) {
  return {protocol, loopbackIPv4(source), loopbackIPv4(destination)};
}

FlowTuple flowOverIPv6(TransportProtocol protocol, std::uint16_t source,
                       std::uint16_t destination) {
  return {protocol, loopbackIPv6(source), loopbackIPv6(destination)};
}

sockaddr_storage socketAddress(int socketFamily, const SocketEndpoint& endpoint) {
  sockaddr_storage storage{};
  if (socketFamily == AF_INET) {
    auto& address = reinterpret_cast<sockaddr_in&>(storage);
    address.sin_family = AF_INET;
    address.sin_port = htons(endpoint.port);
    std::memcpy(&address.sin_addr, endpoint.address.data(), sizeof address.sin_addr);
    return storage;
  }
  auto& address = reinterpret_cast<sockaddr_in6&>(storage);
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(endpoint.port);
  if (endpoint.family == AddressFamily::ipv6) {
    std::memcpy(&address.sin6_addr, endpoint.address.data(), sizeof address.sin6_addr);
  } else {
    constexpr std::size_t kMappedPrefix = 12;
    address.sin6_addr.s6_addr[10] = 0xff;
    address.sin6_addr.s6_addr[11] = 0xff;
    std::memcpy(&address.sin6_addr.s6_addr[kMappedPrefix], endpoint.address.data(), 4);
  }
  return storage;
}

std::uint16_t portOf(const FileDescriptor& socket) {
  sockaddr_storage storage{};
  socklen_t size = sizeof storage;
  EXPECT_EQ(::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&storage), &size), 0);
  // Both families have the port in the same place.
  return ntohs(reinterpret_cast<const sockaddr_in&>(storage).sin_port);
}

std::uint64_t cookieOf(const FileDescriptor& socket) {
  std::uint64_t cookie = 0;
  socklen_t size = sizeof cookie;
  EXPECT_EQ(::getsockopt(socket.get(), SOL_SOCKET, SO_COOKIE, &cookie, &size), 0);
  return cookie;
}

std::uint32_t inodeOf(const FileDescriptor& socket) {
  struct stat status {};
  EXPECT_EQ(::fstat(socket.get(), &status), 0);
  return static_cast<std::uint32_t>(status.st_ino);
}

FileDescriptor makeSocket(int family, int type) {
  FileDescriptor socket(::socket(family, type | SOCK_CLOEXEC, 0));
  EXPECT_TRUE(socket.isOpen());
  return socket;
}

bool bindTo(const FileDescriptor& socket, int family, const SocketEndpoint& endpoint) {
  const auto address = socketAddress(family, endpoint);
  return ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool connectTo(const FileDescriptor& socket, int family, const SocketEndpoint& endpoint) {
  const auto address = socketAddress(family, endpoint);
  return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

FileDescriptor makeListener() {
  FileDescriptor listener = makeSocket(AF_INET, SOCK_STREAM);
  EXPECT_TRUE(bindTo(listener, AF_INET, loopbackIPv4(0)));
  EXPECT_EQ(::listen(listener.get(), SOMAXCONN), 0);
  return listener;
}

}  // namespace ostravel::testing
