#include "Platform/Linux/Identity/ApplicationIdentifierSource.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Tests/Platform/Linux/Support/FailingCalls.h"
#include "Tests/Platform/Linux/Support/Helper.h"
#include "Tests/Platform/Linux/Support/SenderSource.h"
#include "Tests/Platform/Linux/Support/SocketTools.h"
#include "Tests/Support/InChildProcess.h"
#include "Tests/Support/TemporaryFolder.h"
#include "Tests/Support/WaitUntil.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;

constexpr std::uint16_t kProxyPort = 8080;
constexpr auto kPatience = std::chrono::seconds(60);
constexpr const char* kProxy = "com.ostravel.proxy-sidecar";

class ApplicationIdentifierSourceTest : public SenderSourceTest {
 protected:
  void start() {
    source_.emplace(
        kProxyPort, [this](const std::string& warning) { warnings_.push_back(warning); },
        registrations_.path(), proxyUsers_, ConnectTracer::Detail::programs, PacketMarks());
  }

  FlowTuple connectFrom(Helper& helper) { return testing::connectFrom(helper, listener_); }

  // On a busy machine one step of the search for the proxy may not be enough.
  std::string identifierOf(const FlowTuple& flow) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (std::chrono::steady_clock::now() < deadline) {
      const auto identification = source_->identify(packetOf(flow), 0);
      if (!identification.leaveReason) {
        return identification.identifier;
      }
    }
    ADD_FAILURE() << "left to the system";
    return {};
  }

  // Repeats flows until one is left to the system because the listener is not trusted.
  void expectNotTrusted(const FlowTuple& flow) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    Identification identification;
    do {
      identification = source_->identify(packetOf(flow), 0);
      ASSERT_TRUE(identification.leaveReason);
    } while (warnings_.empty() && std::chrono::steady_clock::now() < deadline);
    EXPECT_EQ(identification.leaveReason, LeaveReason::proxyNotTrusted);
    EXPECT_EQ(warnings_.size(), 1U);
  }

  // For senders that are looked up in /proc. Where the time limit expires, nothing is found, but
  // never another identifier.
  void expectOnlyAndEventually(const FlowTuple& flow, const std::string& identifier) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    std::string last;
    while (last.empty() && std::chrono::steady_clock::now() < deadline) {
      last = identifierOf(flow);
    }
    EXPECT_EQ(last, identifier);
  }

  const FileDescriptor listener_ = makeListener();
  const TemporaryFolder registrations_;
  const TemporaryFolder programs_;
  std::vector<std::string> warnings_;
  std::vector<uid_t> proxyUsers_;
  std::optional<ApplicationIdentifierSource> source_;
};

TEST_P(ApplicationIdentifierSourceTest, IdentifiesAnApplicationByItsPath) {
  start();
  const std::string program = copyHelper(programs_, "browser");
  Helper helper(program);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(identifierOf(connectFrom(helper)), program);
  }
  EXPECT_TRUE(warnings_.empty());
}

TEST_P(ApplicationIdentifierSourceTest, FindsTheSendersOfAllKindsOfSockets) {
  start();
  Helper helper;
  const auto listener6 = makeSocket(AF_INET6, SOCK_STREAM);
  ASSERT_EQ(::listen(listener6.get(), 1), 0);
  const auto port6 = portOf(listener6);
  EXPECT_EQ(identifierOf(
                flowOverIPv6(TransportProtocol::tcp, helper.makeSocket("connect6", port6), port6)),
            OSTRAVEL_HELPER);
  EXPECT_EQ(identifierOf(flowOverIPv4(TransportProtocol::udp, helper.makeSocket("send", 443), 443)),
            OSTRAVEL_HELPER);
}

TEST_P(ApplicationIdentifierSourceTest, UsesTheIdentifierOfARegisteredApplication) {
  const std::string program = copyHelper(programs_, "updater");
  registrations_.write("a.json", "{\"" + program + "\": \"com.example.updater\"}");
  start();
  Helper helper(program);
  EXPECT_EQ(identifierOf(connectFrom(helper)), "com.example.updater");
  registrations_.write("a.json", "{\"" + program + "\": \"com.example.other\"}");
  EXPECT_EQ(identifierOf(connectFrom(helper)), "com.example.updater");
  source_->replaceRegistrations({registrations_.path(), [](const std::string& /*warning*/) {}});
  EXPECT_EQ(identifierOf(connectFrom(helper)), "com.example.other");
}

TEST_P(ApplicationIdentifierSourceTest, PassesOnWarningsAboutRegistrations) {
  registrations_.write("a.json", "oops");
  start();
  ASSERT_EQ(warnings_.size(), 1U);
  EXPECT_TRUE(warnings_[0].starts_with(registrations_.path("a.json") + ":1:")) << warnings_[0];
}

TEST_P(ApplicationIdentifierSourceTest, RecognisingTheProxyPrecedesItsRegistration) {
  const std::string program = copyHelper(programs_, "proxy");
  registrations_.write("a.json", "{\"" + program + "\": \"com.example.proxy\"}");
  start();
  Helper proxy(program);
  EXPECT_EQ(identifierOf(connectFrom(proxy)), "com.example.proxy");
  proxy.makeSocket("proxy", kProxyPort);
  EXPECT_EQ(identifierOf(connectFrom(proxy)), kProxy);
  Helper other;
  EXPECT_EQ(identifierOf(connectFrom(other)), OSTRAVEL_HELPER);
}

TEST_P(ApplicationIdentifierSourceTest, ARestartedProxyIsRecognisedAtOnce) {
  start();
  Helper application;
  const std::string first = copyHelper(programs_, "first");
  const std::string second = copyHelper(programs_, "second");
  Helper bystander(first);
  for (int i = 0; i < 6; ++i) {
    const bool isFirst = i % 2 == 0;
    Helper proxy(isFirst ? first : second);
    proxy.makeSocket("proxy", kProxyPort);
    // The proxy and an application take turns at sending first.
    if (i % 3 == 0) {
      EXPECT_EQ(identifierOf(connectFrom(application)), OSTRAVEL_HELPER);
    }
    EXPECT_EQ(identifierOf(connectFrom(proxy)), kProxy);
    EXPECT_EQ(identifierOf(connectFrom(application)), OSTRAVEL_HELPER);
    // It has the proxy's executable and user while that is the proxy.
    EXPECT_EQ(identifierOf(connectFrom(bystander)), isFirst ? kProxy : first);
    proxy.kill();
    EXPECT_EQ(identifierOf(connectFrom(bystander)), first);
  }
}

TEST_P(ApplicationIdentifierSourceTest, TheSocketsOfAKnownProxyAreMarked) {
  start();
  const std::string program = copyHelper(programs_, "proxy");
  const std::string own = std::to_string(PacketMarks().own());
  Helper sibling(program);
  for (int i = 0; i < 3; ++i) {
    Helper proxy(program);
    proxy.makeSocket("proxy", kProxyPort);
    // The first one finds it, and a later one is certain that it has not changed since.
    for (Helper* const helper : {&proxy, &sibling, &proxy, &sibling}) {
      EXPECT_EQ(identifierOf(connectFrom(*helper)), kProxy);
    }
    for (Helper* const helper : {&proxy, &sibling}) {
      connectFrom(*helper);
      EXPECT_EQ(helper->ask("mark"), own);
    }
    // Each process is decided about by itself.
    Helper later(program);
    connectFrom(later);
    EXPECT_EQ(later.ask("mark"), "0");
    proxy.kill();
    EXPECT_EQ(identifierOf(connectFrom(sibling)), program);
    EXPECT_EQ(sibling.ask("mark"), "0");
  }
}

TEST_P(ApplicationIdentifierSourceTest, OnlyTheSocketsOfTheProxyAreMarked) {
  start();
  Helper proxy(copyHelper(programs_, "proxy"));
  proxy.makeSocket("proxy", kProxyPort);
  Helper application;
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(identifierOf(connectFrom(proxy)), kProxy);
    EXPECT_EQ(identifierOf(connectFrom(application)), OSTRAVEL_HELPER);
    EXPECT_EQ(application.ask("mark"), "0");
  }
}

TEST_P(ApplicationIdentifierSourceTest, AFormerProxyIsAnOrdinaryApplication) {
  start();
  const std::string program = copyHelper(programs_, "proxy");
  Helper proxy(program);
  proxy.makeSocket("proxy", kProxyPort);
  EXPECT_EQ(identifierOf(connectFrom(proxy)), kProxy);
  Helper former(program);
  ASSERT_EQ(former.ask("user 65534"), "done");
  EXPECT_EQ(identifierOf(connectFrom(former)), program);
  Helper successor(copyHelper(programs_, "successor"));
  proxy.kill();
  successor.makeSocket("proxy", kProxyPort);
  EXPECT_EQ(identifierOf(connectFrom(successor)), kProxy);
  EXPECT_EQ(identifierOf(connectFrom(former)), program);
}

TEST_P(ApplicationIdentifierSourceTest, AKnownProcessIsReidentifiedAfterExec) {
  start();
  const std::string first = copyHelper(programs_, "first");
  const std::string second = copyHelper(programs_, "second");
  Helper helper(first);
  EXPECT_EQ(identifierOf(connectFrom(helper)), first);
  ASSERT_EQ(helper.ask("run " + second), "ready");
  EXPECT_EQ(identifierOf(connectFrom(helper)), second);
}

TEST_P(ApplicationIdentifierSourceTest, AKnownProcessIsReidentifiedAfterAUserChange) {
  start();
  const std::string program = copyHelper(programs_, "proxy");
  Helper proxy(program);
  ASSERT_EQ(proxy.ask("user 13"), "done");
  proxy.makeSocket("proxy", kProxyPort);
  Helper helper(program);
  EXPECT_EQ(identifierOf(connectFrom(helper)), program);
  ASSERT_EQ(helper.ask("user 13"), "done");
  EXPECT_EQ(identifierOf(connectFrom(helper)), kProxy);
}

TEST_P(ApplicationIdentifierSourceTest, TheFlowsOfAnUnknownProxyAreLeftToTheSystem) {
  makeProcessNumbersRise();
  start();
  Helper proxy;
  proxy.makeSocket("proxy", kProxyPort);
  const auto crowd = makeCrowd();
  const std::string program = copyHelper(programs_, "application");
  Helper application(program);
  const auto flow = connectFrom(application);
  EXPECT_TRUE(source_->identify(packetOf(flow), 0).leaveReason);
  EXPECT_EQ(identifierOf(flow), program);
  EXPECT_EQ(identifierOf(connectFrom(proxy)), kProxy);
}

TEST_P(ApplicationIdentifierSourceTest, AFlowOfABoundSocketIsLeftToTheSystem) {
  start();
  constexpr std::uint32_t kLoopback = 1;
  constexpr char kInterface[] = "lo";
  for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
    const auto socket = makeSocket(AF_INET, type);
    ASSERT_EQ(
        ::setsockopt(socket.get(), SOL_SOCKET, SO_BINDTODEVICE, kInterface, sizeof kInterface), 0);
    ASSERT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(portOf(listener_))));
    const auto flow =
        flowOverIPv4(type == SOCK_STREAM ? TransportProtocol::tcp : TransportProtocol::udp,
                     portOf(socket), portOf(listener_));
    // As with a VRF, where the packet is queued again on its way through another interface.
    for (const std::uint32_t interface : {kLoopback, 2U}) {
      const auto identification = source_->identify(packetOf(flow), interface);
      EXPECT_TRUE(identification.leaveReason);
      EXPECT_EQ(identification.leaveReason, LeaveReason::notCarried);
    }
  }
}

TEST_P(ApplicationIdentifierSourceTest, ReportsTheUserAndTheProcess) {
  start();
  Helper helper;
  ASSERT_EQ(helper.ask("user 65534"), "done");
  const auto identification = source_->identify(packetOf(connectFrom(helper)), 0);
  EXPECT_EQ(identification.user, 65534U);
  EXPECT_EQ(identification.process, helper.pid());
  EXPECT_EQ(identification.leaveReason, std::nullopt);
}

TEST_P(ApplicationIdentifierSourceTest, AWatchedProxyIsReadyForTheFirstFlow) {
  start();
  EXPECT_FALSE(source_->watchProxy());
  Helper application;
  const auto flow = connectFrom(application);
  const std::string program = copyHelper(programs_, "proxy");
  for (int i = 0; i < 2; ++i) {
    Helper proxy(program);
    proxy.makeSocket("proxy", kProxyPort);
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    std::optional<std::string> news;
    while (!news && std::chrono::steady_clock::now() < deadline) {
      news = source_->watchProxy();
    }
    EXPECT_EQ(news, "the local proxy is " + program + " (process " + std::to_string(proxy.pid()) +
                        ", user root)");
    EXPECT_FALSE(source_->watchProxy());
    EXPECT_FALSE(source_->identify(packetOf(flow), 0).leaveReason);
  }
}

TEST_P(ApplicationIdentifierSourceTest, AListenerThatIsNotAProxyGetsNoFlows) {
  start();
  Helper server;
  server.makeSocket("proxy", kProxyPort);
  ASSERT_EQ(server.ask("answer HTTP/1.1 404 Not Found"), "done");
  Helper application(copyHelper(programs_, "application"));
  expectNotTrusted(connectFrom(application));
  expectNotTrusted(connectFrom(server));
}

TEST_P(ApplicationIdentifierSourceTest, APersonsProxyGetsOnlyThatPersonsFlows) {
  start();
  const std::string program = copyHelper(programs_, "application");
  Helper proxy(copyHelper(programs_, "proxy"));
  ASSERT_EQ(proxy.ask("user 54321"), "done");
  proxy.makeSocket("proxy", kProxyPort);
  Helper own(program);
  ASSERT_EQ(own.ask("user 54321"), "done");
  EXPECT_EQ(identifierOf(connectFrom(own)), program);
  EXPECT_EQ(identifierOf(connectFrom(proxy)), kProxy);
  EXPECT_TRUE(warnings_.empty());
  Helper other(program);
  expectNotTrusted(connectFrom(other));
  EXPECT_EQ(identifierOf(connectFrom(own)), program);
}

TEST_P(ApplicationIdentifierSourceTest, ANamedUsersProxyGetsEverybodysFlows) {
  proxyUsers_ = {54321};
  start();
  Helper proxy(copyHelper(programs_, "proxy"));
  ASSERT_EQ(proxy.ask("user 54321"), "done");
  proxy.makeSocket("proxy", kProxyPort);
  Helper other;
  EXPECT_EQ(identifierOf(connectFrom(other)), OSTRAVEL_HELPER);
  EXPECT_TRUE(warnings_.empty());
}

TEST_P(ApplicationIdentifierSourceTest, AllProgramsOfAProxyChainAreTheProxy) {
  start();
  Helper last(copyHelper(programs_, "last"));
  ASSERT_EQ(last.ask("user 54321"), "done");
  last.makeSocket("proxy", 3128);
  Helper front(copyHelper(programs_, "front"));
  front.makeSocket("proxy", kProxyPort);
  ASSERT_EQ(front.ask("via 3128"), "done");
  EXPECT_EQ(identifierOf(connectFrom(front)), kProxy);
  EXPECT_EQ(identifierOf(connectFrom(last)), kProxy);
  Helper other;
  const auto flow = connectFrom(other);
  EXPECT_EQ(identifierOf(flow), OSTRAVEL_HELPER);
  EXPECT_FALSE(source_->identify(packetOf(flow), 0).mayBelongToProxy);
}

TEST_P(ApplicationIdentifierSourceTest, AProcessMayBelongToAProxyWithoutAKnownDialler) {
  Helper early(copyHelper(programs_, "early"));
  ASSERT_EQ(early.ask("user 54322"), "done");
  const auto flowOfNobody = connectFrom(early);
  early.kill();
  start();
  Helper application;
  ASSERT_EQ(application.ask("user 54321"), "done");
  Helper samePerson(copyHelper(programs_, "same"));
  ASSERT_EQ(samePerson.ask("user 54322"), "done");
  Helper service(copyHelper(programs_, "service"));
  ASSERT_EQ(service.ask("user 13"), "done");
  const auto flow = connectFrom(application);
  // There is no listener.
  EXPECT_FALSE(source_->identify(packetOf(flow), 0).mayBelongToProxy);
  EXPECT_FALSE(source_->identify(packetOf(flow), 0).leaveReason);

  Helper proxy(copyHelper(programs_, "proxy"));
  proxy.makeSocket("proxy", kProxyPort);
  ASSERT_EQ(proxy.ask("answer HTTP/1.1 403 Forbidden"), "done");
  EXPECT_EQ(identifierOf(flow), OSTRAVEL_HELPER);
  EXPECT_FALSE(source_->identify(packetOf(flow), 0).mayBelongToProxy);
  EXPECT_TRUE(source_->identify(packetOf(connectFrom(service)), 0).mayBelongToProxy);
  EXPECT_FALSE(source_->identify(packetOf(connectFrom(samePerson)), 0).mayBelongToProxy);
  // This is certainly the proxy.
  EXPECT_FALSE(source_->identify(packetOf(connectFrom(proxy)), 0).mayBelongToProxy);
  EXPECT_TRUE(source_->identify(packetOf(flowOfNobody), 0).leaveReason);
}

// Ends the process on the next system call, except those for memory, locks and its exit, before
// which AddressSanitizer asks for the signal stack.
bool forbidSystemCalls() {
  constexpr auto allow = [](std::uint32_t number) {
    return std::array<sock_filter, 2>{{BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
                                       BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)}};
  };
  std::vector<sock_filter> filter{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
  for (const int number : {SYS_brk, SYS_mmap, SYS_munmap, SYS_madvise, SYS_futex, SYS_sched_yield,
                           SYS_clock_gettime, SYS_sigaltstack, SYS_exit_group}) {
    const auto statements = allow(static_cast<std::uint32_t>(number));
    filter.insert(filter.end(), statements.begin(), statements.end());
  }
  filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS));
  const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST_P(ApplicationIdentifierSourceTest, OnlyAnUnpublishedSenderTakesSystemCalls) {
  start();
  const std::string program = copyHelper(programs_, "browser");
  Helper helper(program);
  Helper proxy(copyHelper(programs_, "proxy"));
  for (const bool hasProxy : {false, true}) {
    if (hasProxy) {
      proxy.makeSocket("proxy", kProxyPort);
    }
    // Afterwards the process and the proxy are known.
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(identifierOf(connectFrom(helper)), program);
    }
    const auto packet = packetOf(connectFrom(helper));
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      const bool isRight =
          forbidSystemCalls() && source_->identify(packet, 0).identifier == program;
      ::_exit(isRight ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    if (GetParam() == SenderSource::table) {
      EXPECT_EQ(status, 0);
    } else {
      EXPECT_TRUE(WIFSIGNALED(status));
    }
  }
}

TEST_P(ApplicationIdentifierSourceTest, AFlowWithoutASocketHasNoIdentifier) {
  start();
  Helper helper;
  const auto flow = flowOverIPv4(TransportProtocol::udp, helper.makeSocket("send", 443), 443);
  ASSERT_EQ(helper.ask("close"), "done");
  EXPECT_EQ(identifierOf(flow), "");
}

TEST_P(ApplicationIdentifierSourceTest, AnEndedSenderHasNoIdentifier) {
  start();
  Helper helper;
  const auto flow = connectFrom(helper);
  helper.kill();
  EXPECT_EQ(identifierOf(flow), "");
}

TEST_P(ApplicationIdentifierSourceTest, AnEndedSenderMayHaveBeenTheProxy) {
  start();
  Helper proxy(copyHelper(programs_, "proxy"));
  proxy.makeSocket("proxy", kProxyPort);
  // The sender could be any process: even its user is not always known any more.
  Helper helper;
  ASSERT_EQ(helper.ask("user 65534"), "done");
  const auto flow = connectFrom(helper);
  helper.kill();
  EXPECT_EQ(identifierOf(connectFrom(proxy)), kProxy);
  EXPECT_TRUE(source_->identify(packetOf(flow), 0).leaveReason);
}

TEST_P(ApplicationIdentifierSourceTest, AnUnknownSenderOfTheProxysUserMayBeTheProxy) {
  // Not seen by the tracer, and after more descriptors than can be scanned in time.
  makeProcessNumbersRise();
  Helper sameUser;
  Helper otherUser;
  ASSERT_EQ(otherUser.ask("user 65534"), "done");
  const auto flowOfSameUser = connectFrom(sameUser);
  const auto flowOfOtherUser = connectFrom(otherUser);
  Helper proxy(copyHelper(programs_, "proxy"));
  proxy.makeSocket("proxy", kProxyPort);
  start();
  EXPECT_EQ(identifierOf(connectFrom(proxy)), kProxy);
  std::vector<std::unique_ptr<Helper>> crowd;
  for (const char* const user : {"0", "0", "0", "65534", "65534", "65534"}) {
    crowd.push_back(std::make_unique<Helper>());
    ASSERT_EQ(crowd.back()->ask("hold 15000"), "done");
    ASSERT_EQ(crowd.back()->ask(std::string("user ") + user), "done");
  }
  EXPECT_TRUE(source_->identify(packetOf(flowOfSameUser), 0).leaveReason);
  EXPECT_EQ(identifierOf(flowOfOtherUser), "");
}

TEST_P(ApplicationIdentifierSourceTest, FindsAnEarlierConnectorThroughItsDescriptors) {
  const std::string program = copyHelper(programs_, "early");
  Helper helper(program);
  const auto flow = connectFrom(helper);
  start();
  expectOnlyAndEventually(flow, program);
}

TEST_P(ApplicationIdentifierSourceTest, FindsProcessesInProcWithoutTheTracer) {
  const std::string program = copyHelper(programs_, "browser");
  Helper helper(program);
  Helper proxy(copyHelper(programs_, "proxy"));
  proxy.makeSocket("proxy", kProxyPort);
  withOnlyCapability(CAP_SYS_PTRACE, [&] {
    start();
    EXPECT_EQ(warnings_.size(), 1U);
    EXPECT_NE(warnings_.at(0).find("connects cannot be traced"), std::string::npos);
    EXPECT_NE(warnings_.at(0).find("not permitted"), std::string::npos);
    expectOnlyAndEventually(connectFrom(helper), program);
    expectOnlyAndEventually(connectFrom(proxy), kProxy);
    EXPECT_EQ(warnings_.size(), 1U);
  });
}

TEST_P(ApplicationIdentifierSourceTest, DistinguishesManyProcesses) {
  start();
  for (int i = 0; i < 100; ++i) {
    const std::string program =
        i % 2 == 0 ? OSTRAVEL_HELPER : copyHelper(programs_, "program" + std::to_string(i));
    Helper helper(program);
    EXPECT_EQ(identifierOf(connectFrom(helper)), program);
  }
}

TEST_P(ApplicationIdentifierSourceTest, ExplainsWhereAnIdentifierComesFrom) {
  const std::string registered = copyHelper(programs_, "registered");
  registrations_.write("a.json", "{\"" + registered + "\": \"com.example.one\"}");
  start();
  // On a busy machine an executable may be found late.
  const auto isDescribedAs = [this](const Helper& helper, const std::string& expected) {
    return waitUntil([&] {
      const auto found = source_->describe(helper.pid());
      return found && found->identifier + " by " + std::string(found->source) == expected;
    });
  };
  const Helper one(registered);
  const Helper other;
  EXPECT_TRUE(isDescribedAs(one, "com.example.one by registration"));
  EXPECT_TRUE(isDescribedAs(other, std::string(OSTRAVEL_HELPER) + " by path"));
  EXPECT_EQ(source_->describe(registered).source, "registration");
  EXPECT_EQ(source_->describe(OSTRAVEL_HELPER).source, "path");

  Helper proxy(copyHelper(programs_, "proxy"));
  proxy.makeSocket("proxy", kProxyPort);
  EXPECT_EQ(identifierOf(connectFrom(proxy)), kProxy);
  EXPECT_TRUE(isDescribedAs(proxy, std::string(kProxy) + " by proxy"));

  Helper gone;
  const pid_t number = gone.pid();
  gone.kill();
  EXPECT_FALSE(source_->describe(number));
}

TEST_P(ApplicationIdentifierSourceTest, LeavesEveryFlowWithoutSocketDiagnostics) {
  withFailingCalls({SYS_socket, {{2, NETLINK_SOCK_DIAG}}}, EPROTONOSUPPORT, [this] {
    start();
    ASSERT_EQ(warnings_.size(), 1U);
    EXPECT_NE(warnings_[0].find("every flow is left to the system"), std::string::npos);
    Helper helper;
    const auto flow = connectFrom(helper);
    EXPECT_EQ(source_->identify(packetOf(flow), 0).leaveReason, LeaveReason::diagnosticsFailed);
    EXPECT_EQ(source_->applicationOf(flow, 0), "");
  });
}

INSTANTIATE_TEST_SUITE_P(Senders, ApplicationIdentifierSourceTest,
                         ::testing::Values(SenderSource::table, SenderSource::systemCalls),
                         [](const auto& source) { return ostravel::testing::nameOf(source); });

}  // namespace
}  // namespace ostravel::linuxplatform
