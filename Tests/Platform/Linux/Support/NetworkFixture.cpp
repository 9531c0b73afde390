#include "Tests/Platform/Linux/Support/NetworkFixture.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>
#include <utility>

namespace ostravel::testing {

namespace {

using platform::NetworkRule;
using platform::NetworkRuleProtocol;

TestSocket beginConnect(const std::string& address, std::uint16_t port,
                        const SocketSettings& settings) {
  auto socket = TestSocket::makeTcp(address, SOCK_NONBLOCK);
  if (settings.mark != 0) {
    socket.setMark(settings.mark);
  }
  if (settings.sourcePort != 0) {
    socket.bindTo(address, settings.sourcePort);
  }
  socket.connectTo(address, port);
  return socket;
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
  pollfd waited{queue.descriptor(), POLLIN, 0};
  if (::poll(&waited, 1, static_cast<int>(limit.count())) == 1) {
    const auto keep = [&packets](const linuxplatform::PacketQueue::Packet& packet) {
      packets.push_back({packet.id,
                         packet.mark,
                         packet.uid,
                         packet.outputInterface,
                         {packet.bytes.begin(), packet.bytes.end()}});
    };
    while (queue.receive(keep) == linuxplatform::PacketQueue::Received::some) {
    }
  }
  return packets;
}

Connecting::Connecting(const std::string& address, std::uint16_t port,
                       const SocketSettings& settings)
    : TestSocket(beginConnect(address, port, settings)) {}

ConnectingApplication::ConnectingApplication(const std::string& address, std::uint16_t port)
    : TestSocket(TestSocket::makeTcp(address, SOCK_NONBLOCK)), process_(::fork()) {
  if (process_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    // It must not inherit what ends with a descriptor, such as the rules.
    const auto own = static_cast<unsigned>(descriptor());
    ::close_range(0, own - 1, 0);
    ::close_range(own + 1, ~0U, 0);
    connectTo(address, port);
    ::raise(SIGSTOP);
    ::_exit(0);
  }
  // Wait until it has stopped itself.
  int status = 0;
  if (::waitpid(process_, &status, WUNTRACED) != process_ || !WIFSTOPPED(status)) {
    throw std::runtime_error("the application did not connect");
  }
}

ConnectingApplication::~ConnectingApplication() {
  ::kill(process_, SIGKILL);
  ::waitpid(process_, nullptr, 0);
}

}  // namespace ostravel::testing
