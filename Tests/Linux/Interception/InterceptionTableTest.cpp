#include "Platform/Linux/InterceptionTable.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "Platform/Linux/PacketMarks.h"
#include "Platform/Linux/PacketQueue.h"
#include "Tests/Linux/Interception/Support/NetworkFixture.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using platform::Error;
using platform::TransparentProxyNetworkSettings;
using testing::Connecting;
using testing::Listener;
using testing::loopbackSettings;
using testing::outputOf;
using testing::tcpRule;
using testing::waitForPackets;

constexpr auto kGenerous = 5s;
// Shorter than any retransmission, so that what has not happened by then was not going to.
constexpr auto kSoon = 300ms;

class InterceptionTableTest : public ::testing::Test {
 protected:
  InterceptionTableTest() : queue_(std::get<std::unique_ptr<PacketQueue>>(PacketQueue::open())) {}

  std::unique_ptr<InterceptionTable> install(
      const TransparentProxyNetworkSettings& settings,
      const std::vector<InterceptionTable::ListenerPorts>& listeners = {}) {
    auto installed = InterceptionTable::install(settings, queue_->number(), listeners);
    if (const auto* error = std::get_if<Error>(&installed)) {
      ADD_FAILURE() << platform::describe(*error);
      return nullptr;
    }
    return std::get<std::unique_ptr<InterceptionTable>>(std::move(installed));
  }

  std::string errorOf(const TransparentProxyNetworkSettings& settings) {
    const auto installed = InterceptionTable::install(settings, queue_->number(), {});
    const auto* error = std::get_if<Error>(&installed);
    return error != nullptr ? error->localizedDescription : "(no error)";
  }

  std::unique_ptr<PacketQueue> queue_;
};

TEST_F(InterceptionTableTest, OffersTheFirstPacketOfASelectedFlowAndAcceptsIt) {
  const auto table = install(loopbackSettings());
  Listener origin("127.0.0.1", 8000);
  const Connecting application("127.0.0.1", 8000);
  const auto packets = waitForPackets(*queue_, kGenerous);
  ASSERT_EQ(packets.size(), 1U);
  EXPECT_EQ(application.result(kSoon), EINPROGRESS);
  queue_->accept(packets[0].id);
  EXPECT_EQ(application.result(kGenerous), 0);
  EXPECT_EQ(origin.acceptOne(kGenerous), application.sourcePort());
}

TEST_F(InterceptionTableTest, OffersIPv6) {
  const auto table = install(loopbackSettings());
  Listener origin("::1", 8000);
  const Connecting application("::1", 8000);
  const auto packets = waitForPackets(*queue_, kGenerous);
  ASSERT_EQ(packets.size(), 1U);
  queue_->accept(packets[0].id);
  EXPECT_EQ(application.result(kGenerous), 0);
}

TEST_F(InterceptionTableTest, LeavesOtherPortsAlone) {
  const auto table = install(loopbackSettings());
  Listener origin("127.0.0.1");
  const Connecting application("127.0.0.1", origin.port());
  EXPECT_EQ(application.result(kGenerous), 0);
  EXPECT_TRUE(waitForPackets(*queue_, 0ms).empty());
}

TEST_F(InterceptionTableTest, ExclusionComesBeforeInclusion) {
  auto settings = loopbackSettings();
  settings.excludedNetworkRules = {tcpRule("127.0.0.1", "8000", 32)};
  const auto table = install(settings);
  Listener origin("127.0.0.1", 8000);
  const Connecting application("127.0.0.1", 8000);
  EXPECT_EQ(application.result(kGenerous), 0);
  EXPECT_TRUE(waitForPackets(*queue_, 0ms).empty());
}

TEST_F(InterceptionTableTest, AWildcardDoesNotCoverLoopback) {
  TransparentProxyNetworkSettings settings("127.0.0.1");
  settings.includedNetworkRules = {tcpRule("0.0.0.0", "8000", 0), tcpRule("::", "8000", 0)};
  const auto table = install(settings);
  Listener ipv4("127.0.0.1", 8000);
  Listener ipv6("::1", 8000);
  EXPECT_EQ(Connecting("127.0.0.1", 8000).result(kGenerous), 0);
  EXPECT_EQ(Connecting("::1", 8000).result(kGenerous), 0);
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
  Listener outside("127.16.0.1", 8000);
  EXPECT_EQ(Connecting("127.16.0.1", 8000).result(kGenerous), 0);
  const Connecting inside("127.15.255.1", 8000);
  EXPECT_EQ(waitForPackets(*queue_, kGenerous).size(), 1U);
}

TEST_F(InterceptionTableTest, SocketsOfOurOwnAreNeverOffered) {
  const auto table = install(loopbackSettings());
  Listener origin("127.0.0.1", 8000);
  const std::string mark = std::to_string(kOwnMark);
  outputOf("python3 -c \"import socket; s = socket.socket(); s.setsockopt(socket.SOL_SOCKET, 36, " +
           mark + "); s.settimeout(5); s.connect(('127.0.0.1', 8000))\"");
  EXPECT_TRUE(waitForPackets(*queue_, 0ms).empty());
}

TEST_F(InterceptionTableTest, AMarkedPacketArrivesAtTheLoopsListenerWithItsOwnSource) {
  Listener first("127.0.0.1");
  Listener second("127.0.0.1");
  const auto table = install(loopbackSettings(), {{first.port(), 0}, {second.port(), 0}});
  const Connecting application("127.0.0.1", 8000);
  const auto packets = waitForPackets(*queue_, kGenerous);
  ASSERT_EQ(packets.size(), 1U);
  queue_->acceptMarked(packets[0].id, redirectMark(1));
  EXPECT_EQ(second.acceptOne(kGenerous), application.sourcePort());
  EXPECT_EQ(application.result(kGenerous), 0);
}

TEST_F(InterceptionTableTest, RedirectsIPv6) {
  Listener listener("::1");
  const auto table = install(loopbackSettings(), {{0, listener.port()}});
  const Connecting application("::1", 8000);
  const auto packets = waitForPackets(*queue_, kGenerous);
  ASSERT_EQ(packets.size(), 1U);
  queue_->acceptMarked(packets[0].id, redirectMark(0));
  EXPECT_EQ(listener.acceptOne(kGenerous), application.sourcePort());
}

TEST_F(InterceptionTableTest, ARefusedConnectionIsResetAtOnce) {
  const auto table = install(loopbackSettings());
  Listener origin("127.0.0.1", 8000);
  const Connecting application("127.0.0.1", 8000);
  const auto packets = waitForPackets(*queue_, kGenerous);
  ASSERT_EQ(packets.size(), 1U);
  queue_->acceptMarked(packets[0].id, kRefuseMark);
  EXPECT_EQ(application.result(kSoon), ECONNREFUSED);
}

TEST_F(InterceptionTableTest, PassesPacketsWhenNobodyListensAtTheQueue) {
  const auto table = install(loopbackSettings());
  queue_.reset();
  Listener origin("127.0.0.1", 8000);
  EXPECT_EQ(Connecting("127.0.0.1", 8000).result(kSoon), 0);
}

TEST_F(InterceptionTableTest, StopsOfferingWhenNobodyRefreshesIt) {
  const auto table = install(loopbackSettings());
  // Every connect before the time-out is over is offered, and held; each is a new one.
  const auto deadline = std::chrono::steady_clock::now() + InterceptionTable::kAliveTimeout * 3;
  Listener origin("127.0.0.1", 8000);
  bool passes = false;
  while (!passes && std::chrono::steady_clock::now() < deadline) {
    passes = Connecting("127.0.0.1", 8000).result(kSoon) == 0;
  }
  EXPECT_TRUE(passes);
  // Whoever refreshes later is offered packets again.
  EXPECT_FALSE(table->refreshAlive());
  while (!waitForPackets(*queue_, 0ms).empty()) {
  }
  const Connecting again("127.0.0.1", 8000);
  EXPECT_EQ(waitForPackets(*queue_, kGenerous).size(), 1U);
}

TEST_F(InterceptionTableTest, GoesOnOfferingWhileItIsRefreshed) {
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
  }
}

TEST_F(InterceptionTableTest, LeavesNothingBehind) {
  install(loopbackSettings()).reset();
  EXPECT_EQ(outputOf("nft list ruleset"), "");
}

TEST_F(InterceptionTableTest, VanishesWithItsProcessHoweverItEnds) {
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // The queue of the parent is of no use here; any number will do.
    const auto installed = InterceptionTable::install(loopbackSettings(), 1, {});
    if (installed.index() == 0) {
      ::raise(SIGKILL);
    }
    ::_exit(1);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(outputOf("nft list ruleset"), "");
}

TEST_F(InterceptionTableTest, ASecondInstanceSaysSoAndHarmsNothing) {
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

TEST_F(InterceptionTableTest, WithoutThePermissionItSaysWhichIsMissing) {
  constexpr uid_t kNobody = 65534;
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const bool dropped = ::setresuid(kNobody, kNobody, kNobody) == 0;
    const auto installed = InterceptionTable::install(loopbackSettings(), 1, {});
    const auto* error = std::get_if<Error>(&installed);
    const bool isNamed =
        error != nullptr && error->localizedDescription.find("CAP_NET_ADMIN") != std::string::npos;
    ::_exit(dropped && isNamed ? 0 : 1);
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace ostravel::linuxplatform
