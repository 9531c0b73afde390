#include "Tests/Platform/Linux/Support/SocketTools.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "Tests/Platform/Linux/Support/Helper.h"

namespace ostravel::testing {

using linuxplatform::AddressFamily;
using linuxplatform::FlowTuple;
using linuxplatform::KernelAddress;
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

FlowTuple connectFrom(Helper& helper, const FileDescriptor& listener) {
  const std::uint16_t port = portOf(listener);
  return flowOverIPv4(TransportProtocol::tcp, helper.makeSocket("connect", port), port);
}

KernelAddress kernelAddress(int socketFamily, const SocketEndpoint& endpoint) {
  if (socketFamily == AF_INET || endpoint.family == AddressFamily::ipv6) {
    return KernelAddress(endpoint);
  }
  SocketEndpoint mapped{AddressFamily::ipv6, {}, endpoint.port};
  mapped.address[10] = 0xff;
  mapped.address[11] = 0xff;
  constexpr std::size_t kMappedPrefix = 12;
  std::copy_n(endpoint.address.begin(), 4, mapped.address.begin() + kMappedPrefix);
  return KernelAddress(mapped);
}

std::uint16_t portOf(const FileDescriptor& socket) {
  KernelAddress address;
  EXPECT_EQ(::getsockname(socket.get(), address.get(), &address.size), 0);
  const auto endpoint = address.endpoint();
  EXPECT_TRUE(endpoint);
  return endpoint ? endpoint->port : 0;
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
  const auto address = kernelAddress(family, endpoint);
  return ::bind(socket.get(), address.get(), address.size) == 0;
}

bool connectTo(const FileDescriptor& socket, int family, const SocketEndpoint& endpoint) {
  const auto address = kernelAddress(family, endpoint);
  return ::connect(socket.get(), address.get(), address.size) == 0;
}

FileDescriptor makeListener() {
  FileDescriptor listener = makeSocket(AF_INET, SOCK_STREAM);
  EXPECT_TRUE(bindTo(listener, AF_INET, loopbackIPv4(0)));
  EXPECT_EQ(::listen(listener.get(), SOMAXCONN), 0);
  return listener;
}

}  // namespace ostravel::testing
