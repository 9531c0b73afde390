#include "Tests/Platform/Linux/Support/NetworkFixture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Platform/Linux/Kernel/KernelAddress.h"

namespace ostravel::testing {

namespace {

using linuxplatform::KernelAddress;
using linuxplatform::SocketEndpoint;
using platform::NetworkRule;
using platform::NetworkRuleProtocol;

// The address may have a zone.
KernelAddress kernelAddress(const std::string& text, std::uint16_t port) {
  const std::size_t zone = text.find('%');
  auto endpoint = SocketEndpoint::atAddress(text.substr(0, zone));
  EXPECT_TRUE(endpoint) << text;
  endpoint->port = port;
  KernelAddress address(*endpoint);
  if (zone != std::string::npos) {
    reinterpret_cast<sockaddr_in6&>(address.storage).sin6_scope_id =
        ::if_nametoindex(text.c_str() + zone + 1);
  }
  return address;
}

bool waitFor(int descriptor, short events, std::chrono::milliseconds limit) {
  pollfd waited{descriptor, events, 0};
  return ::poll(&waited, 1, static_cast<int>(limit.count())) == 1;
}

void resetAtClose(int descriptor) {
  const linger immediately{.l_onoff = 1, .l_linger = 0};
  ::setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &immediately, sizeof immediately);
}

}  // namespace

NetworkRule tcpRule(const std::string& address, const std::string& port, std::uint8_t prefix) {
  return {{address, port}, prefix, NetworkRuleProtocol::tcp};
}

NetworkRule udpRule(const std::string& address, const std::string& port, std::uint8_t prefix) {
  return {{address, port}, prefix, NetworkRuleProtocol::udp};
}

platform::TransparentProxyNetworkSettings loopbackSettings() {
  platform::TransparentProxyNetworkSettings settings("127.0.0.1");
  settings.includedNetworkRules = {tcpRule("127.0.0.1", "8000", 32), tcpRule("::1", "8000", 128)};
  return settings;
}

std::vector<OfferedPacket> waitForPackets(linuxplatform::PacketQueue& queue,
                                          std::chrono::milliseconds limit) {
  std::vector<OfferedPacket> packets;
  if (waitFor(queue.descriptor(), POLLIN, limit)) {
    while (queue.receive([&packets](const linuxplatform::PacketQueue::Packet& packet) {
      packets.push_back({packet.id,
                         packet.mark,
                         packet.uid,
                         packet.outputInterface,
                         {packet.bytes.begin(), packet.bytes.end()}});
    })) {
    }
  }
  return packets;
}

Listener::Listener(const std::string& address, std::uint16_t port) {
  KernelAddress here = kernelAddress(address, port);
  descriptor_ = ::socket(here.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  ::setsockopt(descriptor_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  EXPECT_EQ(::bind(descriptor_, here.get(), here.size), 0) << std::strerror(errno);
  EXPECT_EQ(::listen(descriptor_, SOMAXCONN), 0) << std::strerror(errno);
  ::getsockname(descriptor_, here.get(), &here.size);
  port_ = here.endpoint()->port;
}

Listener::~Listener() {
  ::close(descriptor_);
}

std::uint16_t Listener::acceptOne(std::chrono::milliseconds limit) {
  return acceptOne(limit, false);
}

std::uint16_t Listener::acceptAndResetOne(std::chrono::milliseconds limit) {
  return acceptOne(limit, true);
}

std::uint16_t Listener::acceptOne(std::chrono::milliseconds limit, bool resets) {
  if (!waitFor(descriptor_, POLLIN, limit)) {
    return 0;
  }
  KernelAddress peer;
  const int accepted = ::accept(descriptor_, peer.get(), &peer.size);
  EXPECT_GE(accepted, 0) << std::strerror(errno);
  if (resets) {
    resetAtClose(accepted);
  }
  ::close(accepted);
  return peer.endpoint()->port;
}

Connecting::Connecting(const std::string& address, std::uint16_t port,
                       const SocketSettings& settings) {
  const KernelAddress destination = kernelAddress(address, port);
  descriptor_ =
      ::socket(destination.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int on = 1;
  ::setsockopt(descriptor_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (settings.mark != 0) {
    EXPECT_EQ(::setsockopt(descriptor_, SOL_SOCKET, SO_MARK, &settings.mark, sizeof settings.mark),
              0);
  }
  if (settings.sourcePort != 0) {
    const KernelAddress source = kernelAddress(address, settings.sourcePort);
    EXPECT_EQ(::bind(descriptor_, source.get(), source.size), 0) << std::strerror(errno);
  }
  ::connect(descriptor_, destination.get(), destination.size);
}

Connecting::~Connecting() {
  ::close(descriptor_);
}

int Connecting::result(std::chrono::milliseconds limit) const {
  if (!waitFor(descriptor_, POLLOUT, limit)) {
    return EINPROGRESS;
  }
  int error = 0;
  socklen_t size = sizeof error;
  ::getsockopt(descriptor_, SOL_SOCKET, SO_ERROR, &error, &size);
  return error;
}

std::uint16_t Connecting::sourcePort() const {
  KernelAddress source;
  ::getsockname(descriptor_, source.get(), &source.size);
  return source.endpoint()->port;
}

void Connecting::send(const std::string& bytes) const {
  EXPECT_EQ(::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(bytes.size()));
}

void Connecting::reset() {
  resetAtClose(descriptor_);
  ::close(std::exchange(descriptor_, -1));
}

}  // namespace ostravel::testing
