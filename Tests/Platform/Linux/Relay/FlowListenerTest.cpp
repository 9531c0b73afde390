#include "Platform/Linux/Relay/FlowListener.h"

// Before the kernel's own headers, which then leave these definitions out.
#include <netinet/in.h>

#include <gtest/gtest.h>
#include <linux/netfilter_ipv4.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Linux/Kernel/KernelAddress.h"
#include "Tests/Platform/Linux/Relay/Support/RelayTest.h"
#include "Tests/Platform/Linux/Support/FailingCalls.h"
#include "Tests/Support/CommandOutput.h"

namespace ostravel::linuxplatform::test {
namespace {

using testing::failCalls;

// The destinations of these tests' applications; the kernel redirects them to the listener.
constexpr const char* kFirstDestination = "10.1.0.1";
constexpr const char* kSecondDestination = "10.1.0.2";
constexpr std::uint16_t kDestinationPort = 443;

// Each test has its own source ports, because conntrack remembers redirections for a while.

class FlowListenerTest : public RelayTest {
 protected:
  void redirectDestinations() {
    const std::string commands =
        "ip address add 10.1.0.1/32 dev lo && ip address add 10.1.0.2/32 dev lo && "
        "nft add table inet flows && "
        "nft add chain inet flows out '{ type nat hook output priority -100; }' && "
        "nft add rule inet flows out ip daddr 10.1.0.0/24 tcp dport 443 redirect to :" +
        std::to_string(loop().listener().ipv4Port());
    testing::outputOf(commands);
    isRedirecting_ = true;
  }

  void TearDown() override {
    if (isRedirecting_) {
      testing::outputOf(
          "nft delete table inet flows && ip address delete 10.1.0.1/32 dev lo && "
          "ip address delete 10.1.0.2/32 dev lo");
    }
  }

  struct Waiting {
    std::shared_ptr<LinuxTCPFlow> flow;
    std::future<ReadOutcome> read;
  };

  // Makes the kernel assign another source port to a connection to the second destination.
  void occupySourcePort(std::uint16_t port) {
    occupyingFlow_ = expectFlow(kFirstDestination, port);
    occupyingSocket_.emplace(kApplicationIPv4, port);
    ASSERT_EQ(occupyingSocket_->connectTo(kFirstDestination, kDestinationPort), 0);
  }

  // A released flow.
  Waiting expectFlow(const char* destination, std::uint16_t sourcePort,
                     const std::string& application = "org.example.browser") {
    FlowTuple tuple;
    tuple.source = *parseAddressLiteral({kApplicationIPv4, std::to_string(sourcePort)});
    tuple.destination = *parseAddressLiteral({destination, std::to_string(kDestinationPort)});
    auto verdict = std::make_shared<Verdict>();
    auto flow = std::make_shared<LinuxTCPFlow>(loop(), tuple.source,
                                               recordOf(application, tuple.destination),
                                               std::make_unique<RecordedPacket>(verdict));
    auto [completion, future] = readCompletion();
    flow->read(std::move(completion));
    verdict->wait();
    return {std::move(flow), std::move(future)};
  }

 private:
  bool isRedirecting_ = false;
  std::optional<Waiting> occupyingFlow_;
  std::optional<ApplicationSocket> occupyingSocket_;
};

// The reset may arrive before connect() has reported the connection.
int errorOfConnection(ApplicationSocket& application, const char* address, std::uint16_t port) {
  const int error = application.connectTo(address, port);
  return error != 0 ? error : application.receiveToEnd().error;
}

TEST_F(FlowListenerTest, ResetsAnUnexpectedConnection) {
  ApplicationSocket ipv4(kApplicationIPv4);
  EXPECT_EQ(errorOfConnection(ipv4, "127.0.0.1", loop().listener().ipv4Port()), ECONNRESET);
  ApplicationSocket ipv6(kApplicationIPv6);
  EXPECT_EQ(errorOfConnection(ipv6, "::1", loop().listener().ipv6Port()), ECONNRESET);
}

// Keeps the connections that it receives.
class KeepingWaiter final : public FlowListener::Waiter {
 public:
  explicit KeepingWaiter(const FlowTuple& tuple) : tuple_(tuple) {}

  FlowTuple tuple() const override { return tuple_; }
  const std::string& application() const override { return application_; }
  void accepted(LoopSocket socket) override { socket_ = std::move(socket); }
  void timedOut() override {}

  LoopSocket socket_;

 private:
  const FlowTuple tuple_;
  const std::string application_;
};

TEST_F(FlowListenerTest, AcceptedSocketsSendWithoutDelay) {
  ApplicationSocket application(kApplicationIPv4);
  const auto waiter = std::make_shared<KeepingWaiter>(tupleOf(application.local()));
  onLoop([&] { loop().listener().expect(waiter); });
  ASSERT_EQ(arrive(application), 0);
  ASSERT_TRUE(eventually([&] { return waiter->socket_.isOpen(); }));
  int isWithoutDelay = 0;
  onLoop([&] {
    socklen_t size = sizeof isWithoutDelay;
    ::getsockopt(waiter->socket_.descriptor(), IPPROTO_TCP, TCP_NODELAY, &isWithoutDelay, &size);
    waiter->socket_.reset();
  });
  EXPECT_NE(isWithoutDelay, 0);
}

TEST_F(FlowListenerTest, MatchesEveryFlowWithItsOwnConnection) {
  constexpr int kCount = 50;
  redirectDestinations();
  std::vector<ApplicationSocket> applications;
  std::vector<Waiting> flows;
  for (int index = 0; index < kCount; ++index) {
    applications.emplace_back(kApplicationIPv4);
    flows.push_back(expectFlow(kFirstDestination, applications.back().local().port));
  }
  for (int index = kCount - 1; index >= 0; --index) {
    auto& application = applications[static_cast<std::size_t>(index)];
    ASSERT_EQ(application.connectTo(kFirstDestination, kDestinationPort), 0);
    application.send(std::to_string(index));
  }
  for (int index = 0; index < kCount; ++index) {
    auto& flow = flows[static_cast<std::size_t>(index)];
    EXPECT_EQ(waitFor(std::move(flow.read)).bytes, std::to_string(index));
  }
}

TEST_F(FlowListenerTest, MatchesRedirectedConnectionsThatShareASourcePort) {
  redirectDestinations();
  for (const bool firstComesFirst : {true, false}) {
    const std::uint16_t sharedSourcePort = firstComesFirst ? 5000 : 5001;
    const char* const early = firstComesFirst ? kFirstDestination : kSecondDestination;
    const char* const late = firstComesFirst ? kSecondDestination : kFirstDestination;
    Waiting toFirst = expectFlow(kFirstDestination, sharedSourcePort);
    Waiting toSecond = expectFlow(kSecondDestination, sharedSourcePort);
    ApplicationSocket earlySocket(kApplicationIPv4, sharedSourcePort);
    ASSERT_EQ(earlySocket.connectTo(early, kDestinationPort), 0);
    earlySocket.send(early);
    // The kernel has to assign another source port to this one.
    ApplicationSocket lateSocket(kApplicationIPv4, sharedSourcePort);
    ASSERT_EQ(lateSocket.connectTo(late, kDestinationPort), 0);
    lateSocket.send(late);
    EXPECT_EQ(waitFor(std::move(toFirst.read)).bytes, kFirstDestination);
    EXPECT_EQ(waitFor(std::move(toSecond.read)).bytes, kSecondDestination);
  }
}

TEST_F(FlowListenerTest, ARenumberedConnectionStaysWithItsApplication) {
  constexpr std::uint16_t kSharedSourcePort = 5010;
  redirectDestinations();
  occupySourcePort(kSharedSourcePort);
  Waiting one = expectFlow(kSecondDestination, kSharedSourcePort, "org.example.one");
  Waiting other = expectFlow(kSecondDestination, kSharedSourcePort + 1, "org.example.other");
  ApplicationSocket renumbered(kApplicationIPv4, kSharedSourcePort);
  ASSERT_EQ(renumbered.connectTo(kSecondDestination, kDestinationPort), 0);
  EXPECT_EQ(renumbered.receiveToEnd().error, ECONNRESET);
  EXPECT_EQ(waitFor(std::move(one.read)).error->code, ETIMEDOUT);
  EXPECT_EQ(waitFor(std::move(other.read)).error->code, ETIMEDOUT);
}

TEST_F(FlowListenerTest, RenumberedConnectionsOfOneApplicationAreInterchangeable) {
  constexpr std::uint16_t kSharedSourcePort = 5020;
  redirectDestinations();
  occupySourcePort(kSharedSourcePort);
  Waiting plain = expectFlow(kSecondDestination, kSharedSourcePort + 1);
  Waiting shared = expectFlow(kSecondDestination, kSharedSourcePort);
  ApplicationSocket renumbered(kApplicationIPv4, kSharedSourcePort);
  ASSERT_EQ(renumbered.connectTo(kSecondDestination, kDestinationPort), 0);
  ApplicationSocket unchanged(kApplicationIPv4, kSharedSourcePort + 1);
  ASSERT_EQ(unchanged.connectTo(kSecondDestination, kDestinationPort), 0);
  renumbered.send("x");
  unchanged.send("x");
  EXPECT_EQ(waitFor(std::move(plain.read)).bytes, "x");
  EXPECT_EQ(waitFor(std::move(shared.read)).bytes, "x");
}

TEST_F(FlowListenerTest, RejectsADirectConnection) {
  constexpr std::uint16_t kSharedSourcePort = 5030;
  redirectDestinations();
  Waiting waiting = expectFlow(kFirstDestination, kSharedSourcePort);
  ApplicationSocket impostor(kApplicationIPv4, kSharedSourcePort);
  ASSERT_EQ(impostor.connectTo("127.0.0.1", loop().listener().ipv4Port()), 0);
  EXPECT_EQ(impostor.receiveToEnd().error, ECONNRESET);
}

TEST_F(FlowListenerTest, RejectsAnUntrackedConnection) {
  ApplicationSocket application(kApplicationIPv4);
  const Flow made = makeFlow(application.local());
  auto [completion, future] = readCompletion();
  made.flow->read(std::move(completion));
  made.verdict->wait();
  testing::outputOf(
      "nft 'add table inet untracked; add chain inet untracked out "
      "{ type filter hook output priority raw; }; add rule inet untracked out notrack'");
  EXPECT_EQ(errorOfConnection(application, "127.0.0.1", loop().listener().ipv4Port()), ECONNRESET);
  testing::outputOf("nft delete table inet untracked");
  EXPECT_EQ(waitFor(std::move(future)).error->code, ETIMEDOUT);
}

TEST_F(FlowListenerTest, AnIdleConnectionIsKeptAlive) {
  // Inherited from the listener.
  const CarriedFlow carried = carryFlow();
  const std::string command = "ss -tnoH 'sport = :" + std::to_string(loop().listener().ipv4Port()) +
                              "' | grep -q 'timer:(keepalive,1min'";
  EXPECT_EQ(std::system(command.c_str()), 0);
}

TEST_F(FlowListenerTest, RecoversFromLackOfDescriptorsWithoutSpinning) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  ApplicationSocket application(kApplicationIPv4);
  const auto countWakeups = [this] { return onLoop([this] { return loop().counters().wakeups; }); };
  // A sanitizer needs a descriptor when it first sees an object of a class that these use.
  activityWithin(1ms);
  countWakeups();
  eventually([] { return true; });
  const rlimit none{.rlim_cur = 0, .rlim_max = before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const int connected = application.connectTo("127.0.0.1", loop().listener().ipv4Port());
  const Activity activity = activityWithin(5 * limits::kAcceptPause);
  // It tries again; on a busy machine, perhaps not during that time.
  const std::uint64_t wakeups = countWakeups();
  const bool triesAgain = eventually([&] { return loop().counters().wakeups >= wakeups + 2; });
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);

  ASSERT_EQ(connected, 0);
  EXPECT_TRUE(triesAgain);
  EXPECT_LE(activity.wakeups, 10U);
  EXPECT_LT(activity.cpuTime, 50ms);
  EXPECT_EQ(application.receiveToEnd().error, ECONNRESET);
}

class StuckWatcher final : public RedirectPath::Watcher {
 public:
  void connectionIsMissing(unsigned /*loopIndex*/, const FlowTuple& /*tuple*/) override {}
  void connectionWillBeReset(const FlowTuple& /*tuple*/) override {}
  void connectionsCannotBeAccepted(unsigned /*loopIndex*/, AddressFamily /*family*/,
                                   int error) override {
    error_ = error;
  }

  std::atomic<int> error_ = 0;
};

TEST_F(FlowListenerTest, LeavesFlowsAloneWhileOriginalDestinationsAreUnknown) {
  const auto watcher = std::make_shared<StuckWatcher>();
  loops_.redirectPath().setWatcher(watcher);
  ApplicationSocket unexpected(kApplicationIPv4);
  EXPECT_EQ(errorOfConnection(unexpected, "127.0.0.1", loop().listener().ipv4Port()), ECONNRESET);
  EXPECT_TRUE(loops_.redirectPath().isUsable(AddressFamily::ipv4));

  onLoop([] { failCalls({SYS_getsockopt, {{2, SO_ORIGINAL_DST}}}, ENOBUFS); });
  ApplicationSocket application(kApplicationIPv4);
  EXPECT_EQ(errorOfConnection(application, "127.0.0.1", loop().listener().ipv4Port()), ECONNRESET);
  EXPECT_EQ(watcher->error_, ENOBUFS);
  EXPECT_FALSE(loops_.redirectPath().isUsable(AddressFamily::ipv4));
}

TEST_F(FlowListenerTest, LeavesFlowsAloneWhileNothingMoreCanBeWatched) {
  const auto watcher = std::make_shared<StuckWatcher>();
  loops_.redirectPath().setWatcher(watcher);
  ApplicationSocket application(kApplicationIPv4);
  const auto waiter = std::make_shared<KeepingWaiter>(tupleOf(application.local()));
  onLoop([&] {
    loop().listener().expect(waiter);
    failCalls({SYS_epoll_ctl, {{1, EPOLL_CTL_ADD}}}, ENOSPC);
  });
  arrive(application);
  EXPECT_EQ(application.receiveToEnd().error, ECONNRESET);
  EXPECT_TRUE(eventually([&] { return watcher->error_ == ENOSPC; }));
  EXPECT_FALSE(loops_.redirectPath().isUsable(AddressFamily::ipv4));
}

TEST_F(FlowListenerTest, AConnectionThatHasFailedConcernsNoOther) {
  const auto watcher = std::make_shared<StuckWatcher>();
  loops_.redirectPath().setWatcher(watcher);
  onLoop([] { failCalls({SYS_accept4}, ECONNABORTED); });
  ApplicationSocket application(kApplicationIPv4);
  ASSERT_EQ(application.connectTo("127.0.0.1", loop().listener().ipv4Port()), 0);
  activityWithin(1ms);
  EXPECT_EQ(watcher->error_, 0);
  EXPECT_TRUE(loops_.redirectPath().isUsable(AddressFamily::ipv4));
}

TEST_F(FlowListenerTest, WithoutIPv6ThereIsNoPortForIt) {
  testing::outputOf("echo 1 > /proc/sys/net/ipv6/conf/lo/disable_ipv6");
  {
    DescriptorBudget budget(1000);
    MemoryBudget memory;
    EventLoop withoutIPv6(0, budget, memory);
    EXPECT_NE(withoutIPv6.listener().ipv4Port(), 0);
    EXPECT_EQ(withoutIPv6.listener().ipv6Port(), 0);
  }
  testing::outputOf(
      "echo 0 > /proc/sys/net/ipv6/conf/lo/disable_ipv6 && "
      "ip address replace ::1/128 dev lo nodad && "
      "ip address replace 2001:db8::2/128 dev lo nodad");
  waitUntilReachable("::1");
  waitUntilReachable(kApplicationIPv6);
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
