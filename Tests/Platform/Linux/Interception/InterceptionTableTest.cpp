#include "Platform/Linux/Interception/InterceptionTable.h"

#include <gtest/gtest.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Platform/Linux/Kernel/PacketMarks.h"
#include "Platform/Linux/Kernel/PacketQueue.h"
#include "Tests/Platform/Linux/Support/AlteredAnswers.h"
#include "Tests/Platform/Linux/Support/NetworkFixture.h"
#include "Tests/Platform/Linux/Support/SocketTools.h"
#include "Tests/Support/CommandOutput.h"
#include "Tests/Support/InChildProcess.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using platform::Error;
using platform::TransparentProxyNetworkSettings;
using testing::Connecting;
using testing::loopbackSettings;
using testing::OfferedPacket;
using testing::outputOf;
using testing::SocketSettings;
using testing::tcpRule;
using testing::TestListener;
using testing::waitForPackets;

constexpr PacketMarks kMarks;
constexpr auto kGenerous = 5s;
// Shorter than any retransmission: anything that has not happened by then will not happen.
constexpr auto kSoon = 300ms;

class InterceptionTableTest : public ::testing::Test {
 protected:
  InterceptionTableTest() : queue_(*PacketQueue::open()) {}

  std::unique_ptr<InterceptionTable> install(
      const TransparentProxyNetworkSettings& settings,
      const std::vector<InterceptionTable::ListenerPorts>& listeners = {}) {
    auto installed = InterceptionTable::install(settings, kMarks, queue_->number(), listeners);
    if (!installed) {
      ADD_FAILURE() << platform::describe(installed.error());
      return nullptr;
    }
    return *std::move(installed);
  }

  std::string errorOf(const TransparentProxyNetworkSettings& settings) {
    const auto installed = InterceptionTable::install(settings, kMarks, queue_->number(), {});
    return installed ? "(no error)" : installed.error().localizedDescription;
  }

  // The only packet at the queue, within a generous time; all zero if there is not exactly one.
  OfferedPacket offeredPacket() {
    const auto packets = waitForPackets(*queue_, kGenerous);
    EXPECT_EQ(packets.size(), 1U);
    return packets.size() == 1 ? packets[0] : OfferedPacket{};
  }

  std::unique_ptr<PacketQueue> queue_;
};

TEST_F(InterceptionTableTest, OffersTheFirstPacketOfASelectedFlowAndAcceptsIt) {
  const auto table = install(loopbackSettings());
  TestListener origin("127.0.0.1", 8000);
  const Connecting application("127.0.0.1", 8000);
  const auto packet = offeredPacket();
  EXPECT_EQ(application.connectResult(kSoon), EINPROGRESS);
  queue_->accept(packet.id);
  EXPECT_EQ(application.connectResult(kGenerous), 0);
  EXPECT_EQ(origin.acceptOne(kGenerous), application.localPort());
}

TEST_F(InterceptionTableTest, OffersIPv6) {
  const auto table = install(loopbackSettings());
  TestListener origin("::1", 8000);
  const Connecting application("::1", 8000);
  const auto packet = offeredPacket();
  queue_->accept(packet.id);
  EXPECT_EQ(application.connectResult(kGenerous), 0);
}

TEST_F(InterceptionTableTest, LeavesOtherPortsAlone) {
  const auto table = install(loopbackSettings());
  TestListener origin("127.0.0.1");
  const Connecting application("127.0.0.1", origin.port());
  EXPECT_EQ(application.connectResult(kGenerous), 0);
  EXPECT_TRUE(waitForPackets(*queue_, 0ms).empty());
}

TEST_F(InterceptionTableTest, ExclusionComesBeforeInclusion) {
  auto settings = loopbackSettings();
  settings.excludedNetworkRules = {tcpRule("127.0.0.1", "8000", 32)};
  const auto table = install(settings);
  TestListener origin("127.0.0.1", 8000);
  const Connecting application("127.0.0.1", 8000);
  EXPECT_EQ(application.connectResult(kGenerous), 0);
  EXPECT_TRUE(waitForPackets(*queue_, 0ms).empty());
}

TEST_F(InterceptionTableTest, AWildcardDoesNotCoverLoopback) {
  TransparentProxyNetworkSettings settings("127.0.0.1");
  settings.includedNetworkRules = {tcpRule("0.0.0.0", "8000", 0), tcpRule("::", "8000", 0)};
  const auto table = install(settings);
  TestListener ipv4("127.0.0.1", 8000);
  TestListener ipv6("::1", 8000);
  EXPECT_EQ(Connecting("127.0.0.1", 8000).connectResult(kGenerous), 0);
  EXPECT_EQ(Connecting("::1", 8000).connectResult(kGenerous), 0);
  EXPECT_TRUE(waitForPackets(*queue_, 0ms).empty());
}

TEST_F(InterceptionTableTest, AWildcardCoversEveryOtherDestination) {
  outputOf("ip address add 192.0.2.1/32 dev lo");
  TransparentProxyNetworkSettings settings("127.0.0.1");
  settings.includedNetworkRules = {tcpRule("0.0.0.0", "8000", 0)};
  const auto table = install(settings);
  const Connecting application("192.0.2.1", 8000);
  EXPECT_EQ(waitForPackets(*queue_, kGenerous).size(), 1U);
}

TEST_F(InterceptionTableTest, APrefixCoversItsNetworkOnly) {
  TransparentProxyNetworkSettings settings("127.0.0.1");
  settings.includedNetworkRules = {tcpRule("127.5.0.0", "8000", 12)};
  const auto table = install(settings);
  TestListener outside("127.16.0.1", 8000);
  EXPECT_EQ(Connecting("127.16.0.1", 8000).connectResult(kGenerous), 0);
  const Connecting inside("127.15.255.1", 8000);
  EXPECT_EQ(waitForPackets(*queue_, kGenerous).size(), 1U);
}

TEST_F(InterceptionTableTest, OurOwnSocketsAreNeverOffered) {
  const auto table = install(loopbackSettings());
  TestListener origin("127.0.0.1", 8000);
  const std::string mark = std::to_string(kMarks.own());
  outputOf("python3 -c \"import socket; s = socket.socket(); s.setsockopt(socket.SOL_SOCKET, 36, " +
           mark + "); s.settimeout(5); s.connect(('127.0.0.1', 8000))\"");
  EXPECT_TRUE(waitForPackets(*queue_, 0ms).empty());
}

TEST_F(InterceptionTableTest, AMarkedPacketArrivesAtTheLoopsListenerWithItsOwnSource) {
  TestListener first("127.0.0.1");
  TestListener second("127.0.0.1");
  const auto table = install(loopbackSettings(), {{first.port(), 0}, {second.port(), 0}});
  const Connecting application("127.0.0.1", 8000);
  const auto packet = offeredPacket();
  queue_->acceptMarked(packet.id, kMarks.redirect(1));
  EXPECT_EQ(second.acceptOne(kGenerous), application.localPort());
  EXPECT_EQ(application.connectResult(kGenerous), 0);
}

TEST_F(InterceptionTableTest, RedirectsIPv6) {
  TestListener listener("::1");
  const auto table = install(loopbackSettings(), {{0, listener.port()}});
  const Connecting application("::1", 8000);
  const auto packet = offeredPacket();
  queue_->acceptMarked(packet.id, kMarks.redirect(0));
  EXPECT_EQ(listener.acceptOne(kGenerous), application.localPort());
}

TEST_F(InterceptionTableTest, ARefusedConnectionIsResetAtOnce) {
  const auto table = install(loopbackSettings());
  TestListener origin("127.0.0.1", 8000);
  const Connecting application("127.0.0.1", 8000);
  const auto packet = offeredPacket();
  queue_->repeatMarked(packet.id, kMarks.refuse());
  EXPECT_EQ(application.connectResult(kSoon), ECONNREFUSED);
}

// Every value that our mark bits can have.
std::vector<std::uint32_t> everyMark() {
  std::vector<std::uint32_t> values;
  for (unsigned value = 1; value <= kMarks.maximumEventLoops() + 2; ++value) {
    values.push_back(value * kMarks.own());
  }
  return values;
}

TEST_F(InterceptionTableTest, AForeignMarkHasNoEffectOnOtherPorts) {
  TestListener loop("127.0.0.1");
  const auto table = install(loopbackSettings(), {{loop.port(), 0}});
  TestListener origin("127.0.0.1", 8001);
  for (const std::uint32_t mark : everyMark()) {
    const Connecting application("127.0.0.1", 8001, {.mark = mark});
    EXPECT_EQ(application.connectResult(kGenerous), 0) << mark;
    EXPECT_EQ(origin.acceptOne(kGenerous), application.localPort()) << mark;
  }
}

TEST_F(InterceptionTableTest, AForeignMarkHasNoEffectOnAnExcludedDestination) {
  TestListener loop("127.0.0.1");
  auto settings = loopbackSettings();
  settings.excludedNetworkRules = {tcpRule("127.0.0.1", "8000", 32)};
  const auto table = install(settings, {{loop.port(), 0}});
  TestListener origin("127.0.0.1", 8000);
  for (const std::uint32_t mark : everyMark()) {
    const Connecting application("127.0.0.1", 8000, {.mark = mark});
    EXPECT_EQ(application.connectResult(kGenerous), 0) << mark;
    EXPECT_EQ(origin.acceptOne(kGenerous), application.localPort()) << mark;
  }
}

TEST_F(InterceptionTableTest, AForeignMarkHasNoEffectOnAnEstablishedConnection) {
  // Another program's rule, evaluated before ours, for everything but the first packet.
  outputOf(
      "nft 'add table inet foreign; add chain inet foreign out "
      "{ type filter hook output priority raw; }; add rule inet foreign out tcp dport 8000 "
      "tcp flags & (syn | ack) != syn counter meta mark set " +
      std::to_string(kMarks.refuse()) + "'");
  const auto table = install(loopbackSettings());
  TestListener origin("127.0.0.1", 8000);
  const Connecting application("127.0.0.1", 8000);
  const auto packet = offeredPacket();
  queue_->accept(packet.id);
  ASSERT_EQ(application.connectResult(kGenerous), 0);
  application.send("still there");
  EXPECT_EQ(application.connectResult(0ms), 0);
  EXPECT_NE(outputOf("nft list table inet foreign").find("counter packets"), std::string::npos);
}

TEST_F(InterceptionTableTest, PacketsWithOurMarkBitsAreNotOffered) {
  const auto table = install(loopbackSettings());
  std::vector<std::unique_ptr<Connecting>> applications;
  for (const std::uint32_t mark : everyMark()) {
    applications.push_back(
        std::make_unique<Connecting>("127.0.0.1", 8000, SocketSettings{.mark = mark}));
    // Also combined with bits of others.
    applications.push_back(
        std::make_unique<Connecting>("127.0.0.1", 8000, SocketSettings{.mark = mark | 1U}));
  }
  EXPECT_TRUE(waitForPackets(*queue_, 0ms).empty());
}

TEST_F(InterceptionTableTest, PacketsWithOtherMarkBitsAreOffered) {
  const auto table = install(loopbackSettings());
  const Connecting application("127.0.0.1", 8000, {.mark = ~kMarks.mask()});
  const auto packet = offeredPacket();
  EXPECT_EQ(packet.mark, ~kMarks.mask());
}

TEST_F(InterceptionTableTest, AnotherMaskCanBeUsed) {
  const auto marks = PacketMarks::fromMask(0x70);
  TestListener loop("127.0.0.1");
  const auto table =
      *InterceptionTable::install(loopbackSettings(), *marks, queue_->number(), {{loop.port(), 0}});
  const Connecting application("127.0.0.1", 8000, {.mark = kMarks.own()});
  const auto packet = offeredPacket();
  queue_->acceptMarked(packet.id, marks->redirect(0));
  EXPECT_EQ(loop.acceptOne(kGenerous), application.localPort());
}

TEST_F(InterceptionTableTest, ARetransmittedSYNIsNotOfferedAgain) {
  // So that the SYN gets no answer.
  outputOf(
      "nft 'add table inet foreign; add chain inet foreign in "
      "{ type filter hook input priority filter; }; add rule inet foreign in tcp dport 8000 drop'");
  const auto table = install(loopbackSettings());
  const Connecting application("127.0.0.1", 8000);
  const auto packet = offeredPacket();
  queue_->accept(packet.id);
  // The first retransmission comes after a second.
  EXPECT_TRUE(waitForPackets(*queue_, 700ms).empty());
  EXPECT_FALSE(table->refreshAlive());
  EXPECT_TRUE(waitForPackets(*queue_, 800ms).empty());
}

TEST_F(InterceptionTableTest, ANewConnectionFromAUsedPortIsOffered) {
  const auto table = install(loopbackSettings());
  TestListener origin("127.0.0.1", 8000);
  constexpr std::uint16_t kSourcePort = 5000;
  const auto connect = [this] {
    auto application =
        std::make_unique<Connecting>("127.0.0.1", 8000, SocketSettings{.sourcePort = kSourcePort});
    const auto packets = waitForPackets(*queue_, kGenerous);
    EXPECT_EQ(packets.size(), 1U);
    for (const auto& packet : packets) {
      queue_->accept(packet.id);
    }
    EXPECT_EQ(application->connectResult(kGenerous), 0);
    return application;
  };
  // The origin closes first, so that its side is in TIME-WAIT.
  auto application = connect();
  EXPECT_EQ(origin.acceptOne(kGenerous), kSourcePort);
  application.reset();
  // The origin resets it.
  application = connect();
  EXPECT_EQ(origin.acceptAndResetOne(kGenerous), kSourcePort);
  application.reset();
  // The application resets it.
  application = connect();
  application->reset();
  EXPECT_EQ(origin.acceptOne(kGenerous), kSourcePort);
  application = connect();
}

TEST_F(InterceptionTableTest, LinkLocalAndMulticastDestinationsAreNotOffered) {
  outputOf(
      "ip link add ours type veth peer name theirs && ip link set ours up && "
      "ip link set theirs up && ip address add 169.254.1.1/16 dev ours && "
      "ip address add fe80::1/64 dev ours nodad && ip route add default dev ours && "
      "ip route add 224.0.0.0/4 dev ours && "
      "ip address add 192.0.2.1/32 dev lo");
  TransparentProxyNetworkSettings settings("127.0.0.1");
  for (const char* anywhere : {"0.0.0.0", "::"}) {
    settings.includedNetworkRules.push_back(tcpRule(anywhere, "80", 0));
    settings.includedNetworkRules.push_back(testing::udpRule(anywhere, "443", 0));
  }
  const auto table = install(settings);
  const Connecting linkIPv4("169.254.1.2", 80);
  const Connecting linkIPv6("fe80::2%ours", 80);
  outputOf(
      "/usr/bin/python3 -c \"import socket\n"
      "four = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
      "four.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)\n"
      "for address in '224.0.0.251', '255.255.255.255', '169.254.1.3':\n"
      "  four.sendto(b'x', (address, 443))\n"
      "six = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)\n"
      "for address in 'ff02::fb', 'fe80::3':\n"
      "  six.sendto(b'x', (address, 443, 0, socket.if_nametoindex('ours')))\"");
  EXPECT_TRUE(waitForPackets(*queue_, 0ms).empty());
  // A destination beyond the link is offered. The commands may have taken long.
  EXPECT_FALSE(table->refreshAlive());
  const Connecting elsewhere("192.0.2.1", 80);
  EXPECT_EQ(waitForPackets(*queue_, kGenerous).size(), 1U);
}

TEST_F(InterceptionTableTest, PassesPacketsWhenNobodyReadsTheQueue) {
  const auto table = install(loopbackSettings());
  queue_.reset();
  TestListener origin("127.0.0.1", 8000);
  EXPECT_EQ(Connecting("127.0.0.1", 8000).connectResult(kSoon), 0);
}

TEST_F(InterceptionTableTest, AFloodOfOneUserLeavesTheQueueToOthers) {
  constexpr std::uint16_t kPort = 8001;
  constexpr int kAtOnce = 64;
  // Few enough that the slowest of builds exceeds it.
  constexpr std::uint32_t kRate = 200;
  constexpr uid_t kOther = 4711;
  auto settings = loopbackSettings();
  settings.includedNetworkRules.push_back(testing::udpRule("127.0.0.1", "8001", 32));
  const auto installed = InterceptionTable::install(
      settings, kMarks, queue_->number(), {}, InterceptionTable::OfferPoint::beforeFilters, kRate);
  ASSERT_TRUE(installed);
  const auto& table = *installed;
  const auto takeQueued = [this] {
    std::size_t count = 0;
    for (auto packets = waitForPackets(*queue_, 0ms); !packets.empty();
         packets = waitForPackets(*queue_, 0ms)) {
      for (const auto& packet : packets) {
        queue_->accept(packet.id);
      }
      count += packets.size();
    }
    return static_cast<double>(count);
  };
  const auto flood = testing::makeSocket(AF_INET, SOCK_DGRAM);
  const auto address = testing::kernelAddress(AF_INET, testing::loopbackIPv4(kPort));
  const auto send = [&address](const FileDescriptor& socket) {
    ::sendto(socket.get(), "-", 1, 0, address.get(), address.size);
  };
  // Twice as many as may be queued, however long sending takes.
  const auto begin = std::chrono::steady_clock::now();
  const auto allowed = [begin] {
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
    return kRate * (1 + elapsed.count());
  };
  double sent = 0;
  double queued = 0;
  while (sent < 2 * allowed()) {
    for (int packet = 0; packet < kAtOnce; ++packet) {
      send(flood);
    }
    sent += kAtOnce;
    queued += takeQueued();
    table->refreshAlive();
    ASSERT_LT(allowed(), 30 * kRate) << "the machine is too slow to exceed the rate";
  }
  EXPECT_LE(queued, allowed());
  EXPECT_GE(queued, kRate);
  ASSERT_EQ(::seteuid(kOther), 0);
  const auto other = testing::makeSocket(AF_INET, SOCK_DGRAM);
  ASSERT_EQ(::seteuid(0), 0);
  send(other);
  EXPECT_EQ(waitForPackets(*queue_, kGenerous).size(), 1U);
}

TEST_F(InterceptionTableTest, StopsOfferingWithoutARefresh) {
  const auto table = install(loopbackSettings());
  // Every connect before the time-out is offered and held; each is a new connection.
  const auto deadline = std::chrono::steady_clock::now() + InterceptionTable::kAliveTimeout * 3;
  TestListener origin("127.0.0.1", 8000);
  bool passes = false;
  while (!passes && std::chrono::steady_clock::now() < deadline) {
    passes = Connecting("127.0.0.1", 8000).connectResult(kSoon) == 0;
  }
  EXPECT_TRUE(passes);
  // After a later refresh, packets are offered again.
  EXPECT_FALSE(table->refreshAlive());
  while (!waitForPackets(*queue_, 0ms).empty()) {
  }
  const Connecting again("127.0.0.1", 8000);
  EXPECT_EQ(waitForPackets(*queue_, kGenerous).size(), 1U);
}

TEST_F(InterceptionTableTest, KeepsOfferingWhileItIsRefreshed) {
  const auto table = install(loopbackSettings());
  const auto deadline = std::chrono::steady_clock::now() + InterceptionTable::kAliveTimeout * 2;
  while (std::chrono::steady_clock::now() < deadline) {
    ASSERT_FALSE(table->refreshAlive());
    const Connecting application("127.0.0.1", 8000);
    const auto packets = waitForPackets(*queue_, kGenerous);
    ASSERT_FALSE(packets.empty());
    for (const auto& packet : packets) {
      queue_->accept(packet.id);
    }
    // One user's packets beyond kPacketsPerSecond are not offered, and a fast machine gets there.
    std::this_thread::sleep_for(1ms);
  }
}

TEST_F(InterceptionTableTest, LeavesNothingBehind) {
  install(loopbackSettings()).reset();
  EXPECT_EQ(outputOf("nft list ruleset"), "");
}

TEST_F(InterceptionTableTest, IsRemovedWhenItsProcessIsKilled) {
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // The parent's queue is not needed here; any number will do.
    const auto installed = InterceptionTable::install(loopbackSettings(), kMarks, 1, {});
    if (installed) {
      ::raise(SIGKILL);
    }
    ::_exit(1);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(outputOf("nft list ruleset"), "");
}

TEST_F(InterceptionTableTest, ASecondInstanceFailsWithoutHarm) {
  const auto first = install(loopbackSettings());
  EXPECT_NE(errorOf(loopbackSettings()).find("another instance is running"), std::string::npos);
  const Connecting application("127.0.0.1", 8000);
  EXPECT_EQ(waitForPackets(*queue_, kGenerous).size(), 1U);
}

TEST_F(InterceptionTableTest, NamesARuleThatCannotBeTranslated) {
  auto settings = loopbackSettings();
  settings.includedNetworkRules = {tcpRule("example.org", "80", 0)};
  EXPECT_EQ(errorOf(settings),
            "network rule for \"example.org\" port \"80\": the network is not an address literal");
  settings.includedNetworkRules = {tcpRule("127.0.0.1", "http", 32)};
  EXPECT_EQ(errorOf(settings),
            "network rule for \"127.0.0.1\" port \"http\": the port is not a number from 1 to "
            "65535");
  settings.includedNetworkRules = {tcpRule("127.0.0.1", "0", 32)};
  EXPECT_NE(errorOf(settings).find("not a number from 1 to 65535"), std::string::npos);
  settings.includedNetworkRules = {tcpRule("127.0.0.1", "80", 33)};
  EXPECT_NE(errorOf(settings).find("the prefix is longer than the address"), std::string::npos);
  EXPECT_EQ(outputOf("nft list ruleset"), "");
}

TEST_F(InterceptionTableTest, NamesTheMissingPermission) {
  testing::asOrdinaryUser([] {
    const auto installed = InterceptionTable::install(loopbackSettings(), kMarks, 1, {});
    ASSERT_FALSE(installed);
    EXPECT_NE(installed.error().localizedDescription.find("CAP_NET_ADMIN"), std::string::npos);
  });
}

// As long as it exists, the kernel seems to refuse changes of this type, which it makes.
testing::AlteredAnswers refuse(std::uint16_t type) {
  return testing::AlteredAnswers([type](std::vector<char> sent) {
    constexpr std::uint16_t kMessage = 0xff;
    nlmsghdr header{};
    nlmsgerr result{};
    std::memcpy(&header, sent.data(), sizeof header);
    std::memcpy(&result, sent.data() + NLMSG_HDRLEN, sizeof result);
    if (header.nlmsg_type == NLMSG_ERROR && (result.msg.nlmsg_type & kMessage) == type) {
      result.error = -EOPNOTSUPP;
      std::memcpy(sent.data() + NLMSG_HDRLEN, &result, sizeof result);
    }
    return std::vector<testing::NetlinkAnswer>{{std::move(sent), 0}};
  });
}

TEST_F(InterceptionTableTest, SaysWhatTheKernelLacks) {
  struct Lack {
    std::uint16_t type = 0;
    std::string text;
  };
  // Rules are tried without a limit on rates and with an older target first.
  const std::vector<Lack> lacks{
      {NFT_MSG_NEWTABLE, "does not take an owned nftables table"},
      {NFT_MSG_NEWSET, "lacks what the nftables set with time-outs needs"},
      {NFT_MSG_NEWCHAIN, "lacks what the nftables chain "},
      {NFT_MSG_NEWRULE, "lacks what the nftables queue rule needs"},
      {NFT_MSG_NEWSETELEM, "lacks what the nftables set element needs"}};
  for (const Lack& lack : lacks) {
    const auto altered = refuse(lack.type);
    const auto failure =
        InterceptionTable::examine(loopbackSettings(), kMarks, queue_->number(), {{8000, 8000}});
    ASSERT_TRUE(failure) << lack.text;
    EXPECT_EQ(failure->code, EOPNOTSUPP);
    EXPECT_NE(failure->localizedDescription.find("the kernel " + lack.text), std::string::npos)
        << failure->localizedDescription;
  }
}

TEST_F(InterceptionTableTest, SaysThatTheOfferCannotBeMoved) {
  const auto table = install(loopbackSettings());
  ASSERT_TRUE(table);
  const auto altered = refuse(NFT_MSG_DELRULE);
  const auto error = table->offerAfterFilters();
  ASSERT_TRUE(error);
  EXPECT_TRUE(error->localizedDescription.starts_with("the rules could not be moved"));
}

TEST_F(InterceptionTableTest, ThereIsNoScriptOfBadSettings) {
  TransparentProxyNetworkSettings settings("127.0.0.1");
  settings.includedNetworkRules = {tcpRule("nowhere", "80", 32)};
  EXPECT_FALSE(InterceptionTable::script(settings, kMarks, 1, {}));
}

}  // namespace
}  // namespace ostravel::linuxplatform
