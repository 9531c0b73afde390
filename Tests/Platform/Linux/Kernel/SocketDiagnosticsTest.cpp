#include "Platform/Linux/Kernel/SocketDiagnostics.h"

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Platform/Linux/Kernel/CgroupRoot.h"
#include "Tests/Platform/Linux/Support/AlteredAnswers.h"
#include "Tests/Platform/Linux/Support/Helper.h"
#include "Tests/Platform/Linux/Support/SocketTools.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;

constexpr std::uint32_t kAnyInterface = 0;
// The kernel gives the loopback interface this index in every namespace.
constexpr std::uint32_t kLoopback = 1;

class SocketDiagnosticsTest : public ::testing::Test {
 protected:
  SocketDiagnosticsTest() {
    auto opened = SocketDiagnostics::open();
    if (!opened) {
      ADD_FAILURE() << opened.error().localizedDescription;
      return;
    }
    diagnostics_ = *std::move(opened);
  }

  void expectFound(const FlowTuple& flow, const FileDescriptor& socket,
                   std::uint32_t outputInterface = kAnyInterface, std::uint32_t bound = 0) {
    const auto answer = diagnostics_->find(flow, outputInterface);
    ASSERT_TRUE(answer);
    ASSERT_TRUE(*answer);
    EXPECT_EQ((*answer)->inode, inodeOf(socket));
    EXPECT_EQ((*answer)->cookie, cookieOf(socket));
    EXPECT_EQ((*answer)->uid, ::getuid());
    EXPECT_EQ((*answer)->boundInterface, bound);
  }

  void expectNothing(const SocketDiagnostics::Answer& answer) {
    ASSERT_TRUE(answer);
    EXPECT_FALSE(*answer);
  }

  void expectListener(const SocketEndpoint& local, const FileDescriptor& socket) {
    const auto answer = diagnostics_->findListener(local);
    ASSERT_TRUE(answer);
    ASSERT_TRUE(*answer);
    EXPECT_EQ((*answer)->inode, inodeOf(socket));
    EXPECT_EQ((*answer)->cookie, cookieOf(socket));
    EXPECT_EQ((*answer)->state, TCP_LISTEN);
  }

  std::unique_ptr<SocketDiagnostics> diagnostics_;
  const FileDescriptor listener_ = makeListener();
};

TEST_F(SocketDiagnosticsTest, FindsATCPSocketOfIPv4) {
  const auto socket = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(portOf(listener_))));
  expectFound(flowOverIPv4(TransportProtocol::tcp, portOf(socket), portOf(listener_)), socket);
}

TEST_F(SocketDiagnosticsTest, FindsATCPSocketOfIPv6) {
  const auto listener = makeSocket(AF_INET6, SOCK_STREAM);
  ASSERT_EQ(::listen(listener.get(), 1), 0);
  const auto socket = makeSocket(AF_INET6, SOCK_STREAM);
  ASSERT_TRUE(connectTo(socket, AF_INET6, loopbackIPv6(portOf(listener))));
  expectFound(flowOverIPv6(TransportProtocol::tcp, portOf(socket), portOf(listener)), socket);
}

TEST_F(SocketDiagnosticsTest, FindsAnIPv6SocketThatUsesIPv4) {
  const auto socket = makeSocket(AF_INET6, SOCK_STREAM);
  ASSERT_TRUE(connectTo(socket, AF_INET6, loopbackIPv4(portOf(listener_))));
  expectFound(flowOverIPv4(TransportProtocol::tcp, portOf(socket), portOf(listener_)), socket);
}

TEST_F(SocketDiagnosticsTest, FindsASocketThatHasOnlySentItsFirstPacket) {
  // A listener with a full backlog does not answer.
  const auto full = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_TRUE(bindTo(full, AF_INET, loopbackIPv4(0)));
  ASSERT_EQ(::listen(full.get(), 0), 0);
  const auto first = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_TRUE(connectTo(first, AF_INET, loopbackIPv4(portOf(full))));
  const auto socket = makeSocket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK);
  connectTo(socket, AF_INET, loopbackIPv4(portOf(full)));
  const auto flow = flowOverIPv4(TransportProtocol::tcp, portOf(socket), portOf(full));
  expectFound(flow, socket);
  EXPECT_EQ(diagnostics_->find(flow, kAnyInterface)->value().state, TCP_SYN_SENT);
}

TEST_F(SocketDiagnosticsTest, FindsConnectedUDPSockets) {
  const auto socket = makeSocket(AF_INET, SOCK_DGRAM);
  ASSERT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(443)));
  expectFound(flowOverIPv4(TransportProtocol::udp, portOf(socket), 443), socket);
  const auto socket6 = makeSocket(AF_INET6, SOCK_DGRAM);
  ASSERT_TRUE(connectTo(socket6, AF_INET6, loopbackIPv6(443)));
  expectFound(flowOverIPv6(TransportProtocol::udp, portOf(socket6), 443), socket6);
  const auto mapped = makeSocket(AF_INET6, SOCK_DGRAM);
  ASSERT_TRUE(connectTo(mapped, AF_INET6, loopbackIPv4(443)));
  expectFound(flowOverIPv4(TransportProtocol::udp, portOf(mapped), 443), mapped);
}

TEST_F(SocketDiagnosticsTest, FindsUnconnectedUDPSockets) {
  const SocketEndpoint anyIPv4{AddressFamily::ipv4, {}, 0};
  const SocketEndpoint anyIPv6{AddressFamily::ipv6, {}, 0};
  const auto socket = makeSocket(AF_INET, SOCK_DGRAM);
  ASSERT_TRUE(bindTo(socket, AF_INET, anyIPv4));
  expectFound(flowOverIPv4(TransportProtocol::udp, portOf(socket), 443), socket);
  const auto bound = makeSocket(AF_INET, SOCK_DGRAM);
  ASSERT_TRUE(bindTo(bound, AF_INET, loopbackIPv4(0)));
  expectFound(flowOverIPv4(TransportProtocol::udp, portOf(bound), 443), bound);
  const auto dual = makeSocket(AF_INET6, SOCK_DGRAM);
  ASSERT_TRUE(bindTo(dual, AF_INET6, anyIPv6));
  expectFound(flowOverIPv6(TransportProtocol::udp, portOf(dual), 443), dual);
  expectFound(flowOverIPv4(TransportProtocol::udp, portOf(dual), 443), dual);
}

void bindToInterface(const FileDescriptor& socket, const std::string& interface) {
  ASSERT_EQ(::setsockopt(socket.get(), SOL_SOCKET, SO_BINDTODEVICE, interface.c_str(),
                         static_cast<socklen_t>(interface.size())),
            0);
}

TransportProtocol protocolOf(int type) {
  return type == SOCK_STREAM ? TransportProtocol::tcp : TransportProtocol::udp;
}

TEST_F(SocketDiagnosticsTest, FindsABoundSocketOnlyByItsInterface) {
  constexpr std::uint32_t kOtherInterface = 2;
  for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
    const auto socket = makeSocket(AF_INET, type);
    bindToInterface(socket, "lo");
    ASSERT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(portOf(listener_))));
    const auto flow = flowOverIPv4(protocolOf(type), portOf(socket), portOf(listener_));
    expectFound(flow, socket, kLoopback, kLoopback);
    expectNothing(diagnostics_->find(flow, kAnyInterface));
    expectNothing(diagnostics_->find(flow, kOtherInterface));
  }
}

TEST_F(SocketDiagnosticsTest, FindsAnUnboundSocketByAnyInterface) {
  for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
    const auto socket = makeSocket(AF_INET, type);
    ASSERT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(portOf(listener_))));
    const auto flow = flowOverIPv4(protocolOf(type), portOf(socket), portOf(listener_));
    for (const std::uint32_t interface : {kAnyInterface, kLoopback, 2U}) {
      expectFound(flow, socket, interface);
    }
  }
}

TEST_F(SocketDiagnosticsTest, PrefersTheBoundOneOfTwoSocketsWithOnePort) {
  const int on = 1;
  const auto unbound = makeSocket(AF_INET, SOCK_DGRAM);
  const auto bound = makeSocket(AF_INET, SOCK_DGRAM);
  for (const auto* const socket : {&unbound, &bound}) {
    ASSERT_EQ(::setsockopt(socket->get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
  }
  ASSERT_TRUE(bindTo(unbound, AF_INET, {AddressFamily::ipv4, {}, 0}));
  bindToInterface(bound, "lo");
  ASSERT_TRUE(bindTo(bound, AF_INET, {AddressFamily::ipv4, {}, portOf(unbound)}));
  expectFound(flowOverIPv4(TransportProtocol::udp, portOf(bound), 443), bound, kLoopback,
              kLoopback);
}

TEST_F(SocketDiagnosticsTest, ReportsTheUserWhoCreatedTheSocket) {
  Helper helper;
  ASSERT_EQ(helper.ask("user 65534"), "done");
  const auto port = helper.makeSocket("connect", portOf(listener_));
  const auto answer = diagnostics_->find(
      flowOverIPv4(TransportProtocol::tcp, port, portOf(listener_)), kAnyInterface);
  ASSERT_TRUE(answer);
  ASSERT_TRUE(*answer);
  EXPECT_EQ((*answer)->uid, 65534U);
}

TEST_F(SocketDiagnosticsTest, ReportsTheControlGroup) {
  const auto root = findCgroupRoot("/proc/self/mounts");
  ASSERT_TRUE(root);
  std::ifstream groups("/proc/self/cgroup");
  std::string line;
  while (std::getline(groups, line) && !line.starts_with("0::")) {
  }
  struct stat status {};
  ASSERT_EQ(::stat((*root + line.substr(3)).c_str(), &status), 0);
  const auto socket = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(portOf(listener_))));
  const auto answer = diagnostics_->find(
      flowOverIPv4(TransportProtocol::tcp, portOf(socket), portOf(listener_)), kAnyInterface);
  ASSERT_TRUE(answer);
  ASSERT_TRUE(*answer);
  EXPECT_EQ((*answer)->cgroup, status.st_ino);
}

TEST_F(SocketDiagnosticsTest, FindsNothingWhereThereIsNoSocket) {
  auto socket = makeSocket(AF_INET, SOCK_DGRAM);
  ASSERT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(443)));
  const auto flow = flowOverIPv4(TransportProtocol::udp, portOf(socket), 443);
  expectNothing(
      diagnostics_->find(flowOverIPv4(TransportProtocol::udp, portOf(socket), 444), kAnyInterface));
  expectNothing(
      diagnostics_->find(flowOverIPv4(TransportProtocol::tcp, portOf(socket), 443), kAnyInterface));
  expectNothing(
      diagnostics_->find(flowOverIPv6(TransportProtocol::udp, portOf(socket), 443), kAnyInterface));
  socket = FileDescriptor();
  expectNothing(diagnostics_->find(flow, kAnyInterface));
}

TEST_F(SocketDiagnosticsTest, AnAcknowledgementDoesNotAnswerAQuery) {
  const AlteredAnswers altered([](const std::vector<char>& sent) {
    struct Acknowledgement {
      nlmsghdr header;
      nlmsgerr result;
    } acknowledgement{};
    std::memcpy(&acknowledgement.header, sent.data(), sizeof acknowledgement.header);
    acknowledgement.header.nlmsg_len = sizeof acknowledgement;
    acknowledgement.header.nlmsg_type = NLMSG_ERROR;
    std::vector<char> bytes(sizeof acknowledgement);
    std::memcpy(bytes.data(), &acknowledgement, sizeof acknowledgement);
    return std::vector<NetlinkAnswer>{{std::move(bytes), 0}};
  });
  const auto answer = diagnostics_->findListener(loopbackIPv4(portOf(listener_)));
  ASSERT_FALSE(answer);
  EXPECT_EQ(answer.error().code, EPROTO);
}

TEST_F(SocketDiagnosticsTest, AnAddressMayHaveAListenerIfTheKernelDoesNotSay) {
  const auto bound = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_TRUE(bindTo(bound, AF_INET, loopbackIPv4(0)));
  EXPECT_TRUE(diagnostics_->mayHaveListener(loopbackIPv4(portOf(listener_))));
  EXPECT_FALSE(diagnostics_->mayHaveListener(loopbackIPv4(portOf(bound))));
  const AlteredAnswers nothing(
      [](const std::vector<char>& /*sent*/) { return std::vector<NetlinkAnswer>(); });
  EXPECT_TRUE(diagnostics_->mayHaveListener(loopbackIPv4(portOf(bound))));
}

TEST_F(SocketDiagnosticsTest, AListenerIsNotTheSenderOfAFlow) {
  expectNothing(diagnostics_->find(flowOverIPv4(TransportProtocol::tcp, portOf(listener_), 443),
                                   kAnyInterface));
}

TEST_F(SocketDiagnosticsTest, AnEndedConnectionIsNotTheSenderOfAFlow) {
  auto socket = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(portOf(listener_))));
  const auto flow = flowOverIPv4(TransportProtocol::tcp, portOf(socket), portOf(listener_));
  FileDescriptor accepted(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  // The side that closes first enters TIME-WAIT.
  socket = FileDescriptor();
  char byte = 0;
  ASSERT_EQ(::read(accepted.get(), &byte, 1), 0);
  accepted = FileDescriptor();
  expectNothing(diagnostics_->find(flow, kAnyInterface));
}

TEST_F(SocketDiagnosticsTest, FindsAListener) {
  expectListener(loopbackIPv4(portOf(listener_)), listener_);
}

TEST_F(SocketDiagnosticsTest, FindsAListenerOnAllAddresses) {
  const auto listener = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_EQ(::listen(listener.get(), 1), 0);
  expectListener(loopbackIPv4(portOf(listener)), listener);
}

TEST_F(SocketDiagnosticsTest, FindsAListenerOfBothFamilies) {
  const auto listener = makeSocket(AF_INET6, SOCK_STREAM);
  ASSERT_EQ(::listen(listener.get(), 1), 0);
  expectListener(loopbackIPv4(portOf(listener)), listener);
  expectListener(loopbackIPv6(portOf(listener)), listener);
  const auto mapped = makeSocket(AF_INET6, SOCK_STREAM);
  ASSERT_TRUE(bindTo(mapped, AF_INET6, loopbackIPv4(0)));
  ASSERT_EQ(::listen(mapped.get(), 1), 0);
  expectListener(loopbackIPv4(portOf(mapped)), mapped);
}

TEST_F(SocketDiagnosticsTest, FindsAListenerBoundToTheLoopbackInterface) {
  constexpr char kInterface[] = "lo";
  const auto listener = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_EQ(
      ::setsockopt(listener.get(), SOL_SOCKET, SO_BINDTODEVICE, kInterface, sizeof kInterface), 0);
  ASSERT_EQ(::listen(listener.get(), 1), 0);
  expectListener(loopbackIPv4(portOf(listener)), listener);
}

TEST_F(SocketDiagnosticsTest, PrefersTheListenerWithTheExactAddress) {
  const auto exact = makeSocket(AF_INET, SOCK_STREAM);
  const int on = 1;
  ASSERT_EQ(::setsockopt(exact.get(), SOL_SOCKET, SO_REUSEPORT, &on, sizeof on), 0);
  ASSERT_TRUE(bindTo(exact, AF_INET, loopbackIPv4(0)));
  const auto wildcard = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_EQ(::setsockopt(wildcard.get(), SOL_SOCKET, SO_REUSEPORT, &on, sizeof on), 0);
  ASSERT_TRUE(bindTo(wildcard, AF_INET, {AddressFamily::ipv4, {}, portOf(exact)}));
  ASSERT_EQ(::listen(wildcard.get(), 1), 0);
  expectListener(loopbackIPv4(portOf(exact)), wildcard);
  ASSERT_EQ(::listen(exact.get(), 1), 0);
  expectListener(loopbackIPv4(portOf(exact)), exact);
}

TEST_F(SocketDiagnosticsTest, FindsNoListenerOnAnUnusedPort) {
  const auto bound = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_TRUE(bindTo(bound, AF_INET, loopbackIPv4(0)));
  expectNothing(diagnostics_->findListener(loopbackIPv4(portOf(bound))));
  const auto onlyIPv6 = makeSocket(AF_INET6, SOCK_STREAM);
  const int on = 1;
  ASSERT_EQ(::setsockopt(onlyIPv6.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on), 0);
  ASSERT_EQ(::listen(onlyIPv6.get(), 1), 0);
  expectNothing(diagnostics_->findListener(loopbackIPv4(portOf(onlyIPv6))));
  const auto socket = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(portOf(listener_))));
  expectNothing(diagnostics_->findListener(loopbackIPv4(portOf(socket))));
}

TEST_F(SocketDiagnosticsTest, UsesTheNamespaceItWasCreatedIn) {
  const auto socket = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(portOf(listener_))));
  const auto flow = flowOverIPv4(TransportProtocol::tcp, portOf(socket), portOf(listener_));
  std::thread([&] {
    ASSERT_EQ(::unshare(CLONE_NEWNET), 0);
    expectFound(flow, socket);
    auto other = SocketDiagnostics::open();
    ASSERT_TRUE(other);
    expectNothing((*other)->find(flow, kAnyInterface));
    expectNothing((*other)->findListener(loopbackIPv4(portOf(listener_))));
  }).join();
}

TEST_F(SocketDiagnosticsTest, DistinguishesManySockets) {
  constexpr int kSockets = 500;
  std::vector<FileDescriptor> sockets;
  for (int i = 0; i < kSockets; ++i) {
    sockets.push_back(makeSocket(AF_INET, i % 2 == 0 ? SOCK_STREAM : SOCK_DGRAM));
    ASSERT_TRUE(connectTo(sockets.back(), AF_INET, loopbackIPv4(portOf(listener_))));
  }
  for (int round = 0; round < 5; ++round) {
    for (std::size_t i = 0; i < sockets.size(); ++i) {
      expectFound(flowOverIPv4(i % 2 == 0 ? TransportProtocol::tcp : TransportProtocol::udp,
                               portOf(sockets[i]), portOf(listener_)),
                  sockets[i]);
    }
  }
}

}  // namespace
}  // namespace ostravel::linuxplatform
