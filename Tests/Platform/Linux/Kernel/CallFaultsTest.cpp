// What becomes of everything here that opens something in the kernel when one of its system calls
// fails: it says why or does without, and works again afterwards.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>
#include <system_error>
#include <vector>

#include "Platform/Linux/Interception/InterceptionTable.h"
#include "Platform/Linux/Interception/TranslationTable.h"
#include "Platform/Linux/Kernel/CgroupRoot.h"
#include "Platform/Linux/Kernel/ConntrackEntries.h"
#include "Platform/Linux/Kernel/EventDescriptor.h"
#include "Platform/Linux/Kernel/OtherRules.h"
#include "Platform/Linux/Kernel/PacketLog.h"
#include "Platform/Linux/Kernel/PacketQueue.h"
#include "Platform/Linux/Kernel/PacketResender.h"
#include "Platform/Linux/Kernel/RoutingRules.h"
#include "Platform/Linux/Kernel/SocketDiagnostics.h"
#include "Tests/Platform/Linux/Support/FailingCalls.h"
#include "Tests/Platform/Linux/Support/NetworkFixture.h"
#include "Tests/Platform/Linux/Support/PrivateMounts.h"
#include "Tests/Platform/Linux/Support/SocketTools.h"
#include "Tests/Support/CommandOutput.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;

constexpr int kError = ENOMEM;

// True if there is a value, and otherwise a reason.
template <typename Value>
bool isOpen(const platform::Result<Value>& result) {
  if (!result) {
    EXPECT_NE(result.error().localizedDescription, "");
  }
  return static_cast<bool>(result);
}

TEST(CallFaultsTest, SocketsAreNotSaidToBeMissing) {
  const auto listener = makeListener();
  const auto local = loopbackIPv4(portOf(listener));
  withEachCallFailing(kError, [&local] {
    const auto diagnostics = SocketDiagnostics::open();
    if (!isOpen(diagnostics)) {
      return false;
    }
    const auto answer = (*diagnostics)->findListener(local);
    EXPECT_TRUE(!answer || *answer);
    return static_cast<bool>(answer);
  });
}

TEST(CallFaultsTest, OtherRulesAreAssumed) {
  outputOf(
      "nft 'add table ip other; add chain ip other out { type filter hook output priority 0; }; "
      "add rule ip other out tcp dport 25 drop'");
  withEachCallFailing(kError, [] {
    OtherRules rules;
    EXPECT_TRUE(rules.mayHaveChanged());
    const auto findings = rules.find();
    EXPECT_TRUE(findings.onOutput);
    return !findings.atRaw;
  });
}

TEST(CallFaultsTest, TrackedConnectionsAreNotSaidToBeOthers) {
  outputOf(
      "nft 'add table inet other; add chain inet other out { type nat hook output priority -100; "
      "}; add rule inet other out tcp dport 8001 redirect to :8000'");
  const TestListener listener("127.0.0.1", 8000);
  const Connecting application("127.0.0.1", 8001);
  withEachCallFailing(kError, [] {
    ConntrackEntries entries;
    const auto usage = entries.usage();
    EXPECT_TRUE(!usage || usage->count == 1);
    std::size_t found = 0;
    entries.removeDeadRedirections([&found](const SocketEndpoint& arrived) {
      EXPECT_EQ(arrived.port, 8000);
      ++found;
      return true;
    });
    const auto unknown = entries.remove(flowOverIPv4(TransportProtocol::tcp, 1, 8001));
    const std::int64_t code = unknown ? unknown->code : 0;
    EXPECT_TRUE(code == ENOENT || code == kError) << code;
    return usage && found == 1 && code == ENOENT;
  });
}

TEST(CallFaultsTest, RoutingRulesAreReadAsFarAsPossible) {
  const std::string mask = std::to_string(PacketMarks().mask());
  outputOf("ip rule add fwmark " + mask + "/" + mask + " table 100");
  withEachCallFailing(kError, [] {
    const auto clashes = RoutingRules::read().clashesWith(PacketMarks());
    EXPECT_LE(clashes.size(), 1U);
    return clashes.size() == 1;
  });
}

TEST(CallFaultsTest, CopiesOfPacketsAreThereOrTheReasonIs) {
  withEachCallFailing(kError, [] { return isOpen(PacketLog::open()); });
}

TEST(CallFaultsTest, TheQueueIsThereOrTheReasonIs) {
  withEachCallFailing(kError, [] { return isOpen(PacketQueue::open()); });
}

TEST(CallFaultsTest, PacketsCanBeResentOrTheReasonIsKnown) {
  withEachCallFailing(kError, [] { return isOpen(PacketResender::open()); });
}

TEST(CallFaultsTest, RulesArePossibleOrTheReasonIsKnown) {
  withEachCallFailing(kError, [] {
    const auto failure =
        InterceptionTable::examine(loopbackSettings(), PacketMarks(), 1, {{8000, 8000}});
    if (failure) {
      EXPECT_NE(failure->localizedDescription, "");
    }
    return !failure;
  });
}

TEST(CallFaultsTest, RulesAreNotInstalledWithoutASocket) {
  withFailingCalls({SYS_socket}, EMFILE, [] {
    const auto table =
        InterceptionTable::install(loopbackSettings(), PacketMarks(), 1, {{8000, 8000}});
    ASSERT_FALSE(table);
    EXPECT_EQ(table.error().code, EMFILE);
  });
}

TEST(CallFaultsTest, TranslationsAreKeptOrTheReasonIsKnown) {
  withEachCallFailing(
      kError, [] { return isOpen(TranslationTable::install(nullptr, PacketMarks(), false)); });
  EXPECT_EQ(outputOf("nft list tables"), "");
}

TEST(CallFaultsTest, ControlGroupsAreReachedOrTheReasonIsKnown) {
  withEachCallFailing(kError, [] { return isOpen(openCgroupRoot()); });
}

TEST(CallFaultsTest, HiddenControlGroupsAreReachedOrTheReasonIsKnown) {
  inPrivateMounts([] {
    while (const auto mounted = findCgroupRoot("/proc/self/mounts")) {
      ASSERT_EQ(::umount2(mounted->c_str(), MNT_DETACH), 0);
    }
    const auto root = openCgroupRoot();
    ASSERT_TRUE(root) << root.error().localizedDescription;
    EXPECT_EQ(::faccessat(root->get(), "cgroup.controllers", F_OK, 0), 0);
    withEachCallFailing(kError, [] { return isOpen(openCgroupRoot()); });
  });
}

TEST(CallFaultsTest, AnEventDescriptorIsThereOrThrows) {
  withFailingCalls({SYS_eventfd2}, EMFILE, [] {
    try {
      const EventDescriptor event;
      FAIL();
    } catch (const std::system_error& failure) {
      EXPECT_EQ(failure.code().value(), EMFILE);
    }
  });
}

TEST(CallFaultsTest, AQueueThatCannotBeReadSaysSo) {
  const auto queue = PacketQueue::open();
  ASSERT_TRUE(queue);
  EXPECT_FALSE((*queue)->failure());
  withFailingCalls({SYS_recvmmsg}, EIO, [&queue] {
    const auto received = (*queue)->receive([](const PacketQueue::Packet&) { FAIL(); });
    EXPECT_EQ(received, PacketQueue::Received::failed);
  });
  const auto failure = (*queue)->failure();
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, EIO);
}

}  // namespace
}  // namespace ostravel::linuxplatform
