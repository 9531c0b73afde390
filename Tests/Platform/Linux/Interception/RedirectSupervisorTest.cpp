#include "Platform/Linux/Interception/RedirectSupervisor.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Platform/Linux/Interception/InterceptionTable.h"
#include "Platform/Linux/Interception/TranslationTable.h"
#include "Platform/Linux/Kernel/KernelAddress.h"
#include "Tests/Platform/Linux/Support/AlteredSockets.h"
#include "Tests/Platform/Linux/Support/FailingCalls.h"
#include "Tests/Platform/Linux/Support/KeptLog.h"
#include "Tests/Platform/Linux/Support/NetworkFixture.h"
#include "Tests/Support/CommandOutput.h"
#include "Tests/Support/WaitUntil.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;
using namespace std::chrono_literals;

constexpr auto kGenerous = 20s;
constexpr auto kShortPause = 50ms;

class RedirectSupervisorTest : public ::testing::Test {
 protected:
  RedirectSupervisorTest() {
    outputOf("ip address add 192.0.2.7/32 dev lo");
    install();
  }
  ~RedirectSupervisorTest() override {
    if (supervisor_) {
      supervisor_->stop();
    }
    loops_.stop();
  }

  void install() {
    std::vector<InterceptionTable::ListenerPorts> ports;
    for (unsigned index = 0; index < loops_.size(); ++index) {
      const FlowListener& listener = loops_.loop(index).listener();
      ports.push_back({listener.ipv4Port(), listener.ipv6Port()});
    }
    // Nothing reads the queue.
    table_.reset();
    table_ = *InterceptionTable::install(settings_, loops_.marks(), 0, ports);
    table_->keep(*TranslationTable::install(nullptr, loops_.marks(), true));
  }

  void start(std::chrono::milliseconds pause = RedirectSupervisor::kPause) {
    supervisor_ = RedirectSupervisor::start(loops_, settings_, log_, pause);
  }

  bool isUsable(AddressFamily family) { return loops_.redirectPath().isUsable(family); }
  bool becomes(AddressFamily family, bool isUsableThen) {
    const auto limit = std::chrono::steady_clock::now() + kGenerous;
    while (isUsable(family) != isUsableThen && std::chrono::steady_clock::now() < limit) {
      std::this_thread::yield();
    }
    return isUsable(family) == isUsableThen;
  }

  static void addRule(const std::string& chain, const std::string& rule,
                      const std::string& priority = "raw") {
    outputOf("nft 'add table inet foreign; add chain inet foreign " + chain +
             " { type filter hook " + chain + " priority " + priority +
             "; }; add rule inet foreign " + chain + " " + rule + "'");
  }
  static void removeRules() { outputOf("nft delete table inet foreign"); }

  // Of the first loop, which makes the tests.
  void failCallsOnLoop(const SystemCall& call, int error) {
    std::promise<void> done;
    loops_.loop(0).post([&] {
      failCalls(call, error);
      done.set_value();
    });
    done.get_future().wait();
  }

  platform::TransparentProxyNetworkSettings settings_ = loopbackSettings();
  DescriptorBudget budget_{10'000};
  EventLoopGroup loops_{budget_, 2};
  const std::shared_ptr<KeptLog> log_ = std::make_shared<KeptLog>();
  std::unique_ptr<InterceptionTable> table_;
  std::shared_ptr<RedirectSupervisor> supervisor_;
};

TEST_F(RedirectSupervisorTest, ThePathIsUnusableUntilTested) {
  EXPECT_FALSE(isUsable(AddressFamily::ipv4));
  EXPECT_FALSE(isUsable(AddressFamily::ipv6));
}

TEST_F(RedirectSupervisorTest, AWorkingPathBecomesUsableAndLogsNothing) {
  start();
  EXPECT_TRUE(becomes(AddressFamily::ipv4, true));
  EXPECT_TRUE(becomes(AddressFamily::ipv6, true));
  EXPECT_EQ(log_->count(), 0U);
}

TEST_F(RedirectSupervisorTest, ThePathIsUnusableAfterStop) {
  start();
  EXPECT_TRUE(becomes(AddressFamily::ipv4, true));
  supervisor_->stop();
  EXPECT_FALSE(isUsable(AddressFamily::ipv4));
}

TEST_F(RedirectSupervisorTest, ReportsNoAnswerWhenARuleDropsPackets) {
  addRule("input", "ip saddr 127.0.0.1 tcp dport != 8000 drop");
  start();
  EXPECT_NE(log_->wait("over IPv4").find("from 127.0.0.1: not answered"), std::string::npos);
  EXPECT_FALSE(isUsable(AddressFamily::ipv4));
  EXPECT_TRUE(becomes(AddressFamily::ipv6, true));
}

TEST_F(RedirectSupervisorTest, TestsTheMachinesUsualAddressToo) {
  outputOf(
      "ip link add ours type veth peer name theirs && ip link set ours up && "
      "ip address add 198.51.100.1/24 dev ours && ip route add default dev ours");
  addRule("input", "iifname lo ip saddr 198.51.100.1 drop");
  start();
  EXPECT_NE(log_->wait("over IPv4").find("from 198.51.100.1: not answered"), std::string::npos);
}

TEST_F(RedirectSupervisorTest, ALinkLocalAddressIsNotTested) {
  outputOf(
      "ip link add ours type veth peer name theirs && ip link set ours up && "
      "ip address add 169.254.7.7/16 dev ours");
  addRule("input", "iifname lo ip saddr 169.254.7.7 drop");
  start();
  EXPECT_TRUE(becomes(AddressFamily::ipv4, true));
}

TEST_F(RedirectSupervisorTest, SaysThatItCannotTry) {
  failCallsOnLoop({SYS_setsockopt, {{2, SO_MARK}}}, EPERM);
  start();
  EXPECT_NE(log_->wait("over IPv4").find("not possible to try"), std::string::npos);
  EXPECT_FALSE(isUsable(AddressFamily::ipv4));
}

TEST_F(RedirectSupervisorTest, SaysThatItCannotWatchItsSocket) {
  failCallsOnLoop({SYS_epoll_ctl, {{1, EPOLL_CTL_ADD}}}, ENOSPC);
  start();
  EXPECT_NE(log_->wait("over IPv4").find("not possible to try"), std::string::npos);
  EXPECT_FALSE(isUsable(AddressFamily::ipv4));
}

TEST_F(RedirectSupervisorTest, SaysThatItsConnectionIsRefusedAtOnce) {
  failCallsOnLoop({SYS_connect}, EACCES);
  start();
  EXPECT_NE(log_->wait("over IPv4").find("refused or not redirected"), std::string::npos);
  EXPECT_FALSE(isUsable(AddressFamily::ipv4));
}

TEST_F(RedirectSupervisorTest, AnAddressThatHasGoneIsNotTested) {
  failCallsOnLoop({SYS_bind}, EADDRNOTAVAIL);
  start();
  EXPECT_TRUE(becomes(AddressFamily::ipv4, true));
  EXPECT_EQ(log_->count(), 0U);
}

class DistantRedirectSupervisorTest : public RedirectSupervisorTest {
 protected:
  DistantRedirectSupervisorTest() {
    settings_.includedNetworkRules.push_back(
        {{"0.0.0.0", "8000"}, 0, platform::NetworkRuleProtocol::tcp});
    install();
    outputOf(
        "ip link add ours type veth peer name theirs && ip link set ours up && "
        "ip address add 198.51.100.1/24 dev ours && ip route add default dev ours");
  }

  // Drops what comes from elsewhere to our address and not through the interface for it.
  static constexpr const char* kRule =
      "iifname lo ip daddr 198.51.100.1 fib saddr type != local drop";
};

TEST_F(DistantRedirectSupervisorTest, FindsRulesAgainstAnswersFromElsewhere) {
  start();
  EXPECT_TRUE(becomes(AddressFamily::ipv4, true));
  supervisor_->stop();
  addRule("prerouting", kRule, "mangle");
  start();
  EXPECT_NE(log_->wait("over IPv4").find("from 198.51.100.1: not answered"), std::string::npos);
}

// As wg-quick(8) does for its tunnel.
TEST_F(DistantRedirectSupervisorTest, AnswersPassSuchRulesBeforeTracking) {
  addRule("prerouting", kRule);
  install();
  start();
  EXPECT_TRUE(becomes(AddressFamily::ipv4, true));
}

TEST_F(RedirectSupervisorTest, ReportsMissingRedirectionWithoutTracking) {
  addRule("output", "notrack");
  start();
  EXPECT_NE(log_->wait("over IPv4").find("refused or not redirected"), std::string::npos);
  EXPECT_NE(log_->wait("over IPv6").find("refused or not redirected"), std::string::npos);
}

TEST_F(RedirectSupervisorTest, DistinguishesAnotherListenerFromOurs) {
  TestListener other("127.0.0.1", 8000);
  addRule("output", "notrack");
  start();
  EXPECT_NE(log_->wait("over IPv4").find("not redirected"), std::string::npos);
  EXPECT_FALSE(isUsable(AddressFamily::ipv4));
}

TEST_F(RedirectSupervisorTest, RetestsAfterThePauseAndReportsSuccessOnce) {
  addRule("output", "meta l4proto tcp reject with tcp reset");
  start(kShortPause);
  log_->wait("over IPv4");
  log_->wait("over IPv6");
  removeRules();
  EXPECT_TRUE(becomes(AddressFamily::ipv4, true));
  EXPECT_TRUE(becomes(AddressFamily::ipv6, true));
  EXPECT_NE(log_->wait("arrive again over IPv4"), "");
  EXPECT_NE(log_->wait("arrive again over IPv6"), "");
  // No matter how often it has failed.
  EXPECT_EQ(log_->count(), 4U);
}

TEST_F(RedirectSupervisorTest, RetestsSoonAfterTheFirstFailure) {
  addRule("output", "meta l4proto tcp reject with tcp reset");
  start();
  log_->wait("over IPv4");
  removeRules();
  // Far less than the usual pause.
  EXPECT_TRUE(becomes(AddressFamily::ipv4, true));
}

TEST(RedirectSupervisorPauseTest, TheFirstRetriesFollowSooner) {
  const auto pause = [](unsigned failures) {
    return RedirectSupervisor::pauseAfter(failures, RedirectSupervisor::kPause);
  };
  EXPECT_EQ(pause(1), 1s);
  EXPECT_EQ(pause(2), 2s);
  EXPECT_EQ(pause(4), 8s);
  EXPECT_EQ(pause(5), 60s);
  EXPECT_EQ(RedirectSupervisor::pauseAfter(1, 50ms), 50ms);
}

TEST_F(RedirectSupervisorTest, ALostConnectionGoesDirectAndThePathIsRetested) {
  start();
  ASSERT_TRUE(becomes(AddressFamily::ipv4, true));
  // Drops everything to the listeners.
  addRule("input", "tcp dport " + std::to_string(loops_.loop(1).listener().ipv4Port()) + " drop");
  TestListener origin("127.0.0.1", 8000);
  // As if released for the second loop, but by the packet's mark instead of the socket's.
  addRule("output",
          "tcp dport 8000 tcp flags & (syn | ack) == syn "
          "meta mark set " +
              std::to_string(loops_.marks().redirect(1)));
  const Connecting application("127.0.0.1", 8000);
  EXPECT_EQ(application.connectResult(100ms), EINPROGRESS);
  outputOf("nft flush chain inet foreign output");
  const auto source = parseAddressLiteral({"127.0.0.1", std::to_string(application.localPort())});
  const auto destination = parseAddressLiteral({"127.0.0.1", "8000"});
  loops_.redirectPath().reportMissing(1, {TransportProtocol::tcp, *source, *destination});
  EXPECT_NE(log_->wait("over IPv4").find("not answered"), std::string::npos);
  EXPECT_FALSE(isUsable(AddressFamily::ipv4));
  EXPECT_TRUE(isUsable(AddressFamily::ipv6));
  // On the retransmission of its SYN.
  EXPECT_EQ(application.connectResult(kGenerous), 0);
}

TEST_F(RedirectSupervisorTest, AnAbandonedConnectionDoesNotAffectThePath) {
  start();
  ASSERT_TRUE(becomes(AddressFamily::ipv4, true));
  addRule("input", "tcp dport != 8000 drop");
  loops_.redirectPath().reportMissing(
      0, {TransportProtocol::tcp, *parseAddressLiteral({"127.0.0.1", "5000"}),
          *parseAddressLiteral({"127.0.0.1", "8000"})});
  // Runs after everything started by that.
  std::promise<void> ran;
  loops_.loop(0).post([&ran] { ran.set_value(); });
  ran.get_future().wait();
  EXPECT_TRUE(isUsable(AddressFamily::ipv4));
}

TEST_F(RedirectSupervisorTest, LeavesFlowsAloneWhileNothingCanBeAccepted) {
  // The usual pause is longer than what follows takes on a busy machine.
  start();
  ASSERT_TRUE(becomes(AddressFamily::ipv4, true));
  loops_.redirectPath().reportStuck(0, AddressFamily::ipv4, EMFILE);
  EXPECT_FALSE(isUsable(AddressFamily::ipv4));
  EXPECT_TRUE(becomes(AddressFamily::ipv4, true));
}

// A path that works must not be left for good because a question failed once.
TEST_F(RedirectSupervisorTest, RecoversFromWrongAnswersAboutItsSockets) {
  auto alterations = incompleteAnswers(sizeof(sockaddr_in));
  for (SocketAlteration& wrong : wrongAnswers()) {
    alterations.push_back(std::move(wrong));
  }
  start(kShortPause);
  ASSERT_TRUE(becomes(AddressFamily::ipv4, true));
  for (const SocketAlteration& alteration : alterations) {
    std::atomic<int> asked = 0;
    {
      const AlteredSockets altered(
          [&](const SocketQuestion& /*question*/, const SocketAnswer& truth) {
            ++asked;
            return std::optional(alteration.alter(truth));
          });
      loops_.redirectPath().reportStuck(0, AddressFamily::ipv4, EMFILE);
      ASSERT_TRUE(waitUntil([&asked] { return asked >= 2; })) << alteration.name;
      // An answer that is only too long is as good as any.
      EXPECT_TRUE(!isUsable(AddressFamily::ipv4) || alteration.name == "longer");
    }
    ASSERT_TRUE(becomes(AddressFamily::ipv4, true)) << alteration.name;
  }
}

}  // namespace
}  // namespace ostravel::linuxplatform
