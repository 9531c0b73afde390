#include "Platform/Linux/Kernel/PacketQueue.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <vector>

#include "Platform/Linux/Interception/InterceptionTable.h"
#include "Platform/Linux/Kernel/PacketParser.h"
#include "Tests/Platform/Linux/Support/NetworkFixture.h"
#include "Tests/Support/CommandOutput.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using testing::Connecting;
using testing::loopbackSettings;
using testing::outputOf;
using testing::TestListener;
using testing::waitForPackets;

constexpr auto kGenerous = 20s;

std::unique_ptr<PacketQueue> openQueue() {
  return *PacketQueue::open();
}

std::unique_ptr<InterceptionTable> installTable(const PacketQueue& queue) {
  return *InterceptionTable::install(loopbackSettings(), PacketMarks(), queue.number(), {});
}

TEST(PacketQueueTest, TakesAFreeNumber) {
  const auto first = openQueue();
  const auto second = openQueue();
  EXPECT_NE(first->number(), second->number());
}

TEST(PacketQueueTest, ReturnsAtOnceWhenThereIsNoPacket) {
  const auto queue = openQueue();
  EXPECT_EQ(queue->receive([](const PacketQueue::Packet&) { FAIL(); }), PacketQueue::Received::all);
}

TEST(PacketQueueTest, DeliversSeveralPacketsInOneCall) {
  const auto queue = openQueue();
  const auto table = installTable(*queue);
  std::vector<std::unique_ptr<Connecting>> applications;
  for (std::size_t count = 0; count < PacketQueue::kPacketsPerReceive + 2; ++count) {
    applications.push_back(std::make_unique<Connecting>("127.0.0.1", 8000));
  }
  std::vector<std::uint32_t> packets;
  const auto keep = [&packets](const PacketQueue::Packet& packet) { packets.push_back(packet.id); };
  EXPECT_EQ(queue->receive(keep), PacketQueue::Received::some);
  EXPECT_EQ(packets.size(), PacketQueue::kPacketsPerReceive);
  EXPECT_EQ(queue->receive(keep), PacketQueue::Received::all);
  EXPECT_EQ(packets.size(), PacketQueue::kPacketsPerReceive + 2);
  // In the order of their arrival, in which the kernel numbers them.
  EXPECT_TRUE(std::is_sorted(packets.begin(), packets.end()));
}

TEST(PacketQueueTest, DeliversThePacketFromItsNetworkHeader) {
  const auto queue = openQueue();
  const auto table = installTable(*queue);
  const Connecting application("127.0.0.1", 8000);
  const auto packets = waitForPackets(*queue, kGenerous);
  ASSERT_EQ(packets.size(), 1U);
  const auto first = parseFirstPacket(packets[0].bytes);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->tuple.source.port, application.localPort());
  EXPECT_EQ(first->tuple.destination.port, 8000);
}

TEST(PacketQueueTest, ReportsTheSocketsUserAndTheInterface) {
  const auto queue = openQueue();
  const auto table = installTable(*queue);
  constexpr uid_t kSomebody = 4711;
  ASSERT_EQ(::seteuid(kSomebody), 0);
  const Connecting application("127.0.0.1", 8000);
  ASSERT_EQ(::seteuid(0), 0);
  const auto packets = waitForPackets(*queue, kGenerous);
  ASSERT_EQ(packets.size(), 1U);
  EXPECT_EQ(packets[0].uid, kSomebody);
  EXPECT_EQ(packets[0].outputInterface, ::if_nametoindex("lo"));
}

TEST(PacketQueueTest, ATunnelledPacketHasItsSendersUserOrNone) {
  outputOf(
      "ip link add ours type veth peer name theirs && ip address add 192.0.2.1/24 dev ours && "
      "ip link set ours up && ip link set theirs up && "
      "ip neighbour add 192.0.2.2 lladdr 02:00:00:00:00:02 dev ours && "
      "ip link add tunnel0 type vxlan id 1 local 192.0.2.1 remote 192.0.2.2 dstport 443 && "
      "ip address add 198.51.100.1/24 dev tunnel0 && ip link set tunnel0 up && "
      "ip neighbour add 198.51.100.2 lladdr 02:00:00:00:00:03 dev tunnel0");
  platform::TransparentProxyNetworkSettings settings("127.0.0.1");
  settings.includedNetworkRules = {testing::udpRule("192.0.2.2", "443", 32)};
  const auto queue = openQueue();
  const auto table = *InterceptionTable::install(settings, PacketMarks(), queue->number(), {});
  constexpr uid_t kSomebody = 4711;
  ASSERT_EQ(::seteuid(kSomebody), 0);
  const Connecting application("198.51.100.2", 80);
  ASSERT_EQ(::seteuid(0), 0);
  bool isApplicationSeen = false;
  while (!isApplicationSeen) {
    const auto packets = waitForPackets(*queue, kGenerous);
    ASSERT_FALSE(packets.empty());
    for (const auto& packet : packets) {
      // The kernel's own packets on a new link have no user.
      EXPECT_EQ(packet.uid.value_or(kSomebody), kSomebody);
      isApplicationSeen = isApplicationSeen || packet.uid == kSomebody;
    }
  }
}

TEST(PacketQueueTest, PassesPacketsWhenItIsFull) {
  const auto queue = openQueue();
  const auto table = installTable(*queue);
  TestListener origin("127.0.0.1", 8000);
  // More than the queue holds; the first ones are held, the others must connect at once.
  constexpr int kConnections = 300;
  std::vector<std::unique_ptr<Connecting>> applications;
  for (int count = 0; count < kConnections; ++count) {
    applications.push_back(std::make_unique<Connecting>("127.0.0.1", 8000));
  }
  EXPECT_EQ(applications.back()->connectResult(kGenerous), 0);
  EXPECT_EQ(applications.front()->connectResult(0ms), EINPROGRESS);
}

TEST(PacketQueueTest, RetriesARejectedVerdictAtOnce) {
  for (const int failure : {ENOBUFS, ENOMEM, EAGAIN, EINTR}) {
    int failures = 2;
    const auto queue =
        *PacketQueue::open([&failures, failure](mnl_socket* socket, const nlmsghdr* message) {
          return failures-- > 0 ? failure : PacketQueue::sendNow(socket, message);
        });
    const auto table = installTable(*queue);
    TestListener origin("127.0.0.1", 8000);
    const Connecting application("127.0.0.1", 8000);
    const auto packets = waitForPackets(*queue, kGenerous);
    ASSERT_EQ(packets.size(), 1U);
    queue->accept(packets[0].id);
    EXPECT_EQ(application.connectResult(kGenerous), 0) << failure;
  }
}

TEST(PacketQueueTest, DefersAVerdictThatIsRejectedRepeatedly) {
  bool isOutOfMemory = true;
  const auto queue =
      *PacketQueue::open([&isOutOfMemory](mnl_socket* socket, const nlmsghdr* message) {
        return isOutOfMemory ? ENOBUFS : PacketQueue::sendNow(socket, message);
      });
  const auto table = installTable(*queue);
  TestListener origin("127.0.0.1", 8000);
  const Connecting first("127.0.0.1", 8000);
  const Connecting second("127.0.0.1", 8000);
  std::vector<testing::OfferedPacket> packets;
  while (packets.size() < 2) {
    const auto more = waitForPackets(*queue, kGenerous);
    ASSERT_FALSE(more.empty());
    packets.insert(packets.end(), more.begin(), more.end());
  }
  queue->accept(packets[0].id);
  // Refused, to check that the mark is kept as well.
  queue->repeatMarked(packets[1].id, PacketMarks().refuse());
  queue->retryUnsent();
  EXPECT_EQ(first.connectResult(0ms), EINPROGRESS);
  EXPECT_EQ(second.connectResult(0ms), EINPROGRESS);
  ASSERT_TRUE(queue->failure());
  EXPECT_EQ(queue->failure()->code, ENOBUFS);
  isOutOfMemory = false;
  queue->retryUnsent();
  EXPECT_FALSE(queue->failure());
  EXPECT_EQ(first.connectResult(kGenerous), 0);
  EXPECT_EQ(second.connectResult(kGenerous), ECONNREFUSED);
}

TEST(PacketQueueTest, DoesNotRetryAVerdictThatTheKernelRejects) {
  int sent = 0;
  const auto queue =
      *PacketQueue::open([&sent](mnl_socket* /*socket*/, const nlmsghdr* /*message*/) {
        ++sent;
        return ENOENT;
      });
  const auto table = installTable(*queue);
  const Connecting application("127.0.0.1", 8000);
  const auto packets = waitForPackets(*queue, kGenerous);
  ASSERT_EQ(packets.size(), 1U);
  EXPECT_TRUE(queue->accept(packets[0].id));
  queue->retryUnsent();
  EXPECT_EQ(sent, 1);
}

TEST(PacketQueueTest, OnlyTheFirstVerdictCounts) {
  const auto queue = openQueue();
  const auto table = installTable(*queue);
  TestListener origin("127.0.0.1", 8000);
  const Connecting application("127.0.0.1", 8000);
  const auto packets = waitForPackets(*queue, kGenerous);
  ASSERT_EQ(packets.size(), 1U);
  EXPECT_TRUE(queue->isHeld(packets[0].id));
  EXPECT_TRUE(queue->accept(packets[0].id));
  EXPECT_FALSE(queue->isHeld(packets[0].id));
  EXPECT_FALSE(queue->acceptMarked(packets[0].id, PacketMarks().refuse()));
  EXPECT_EQ(application.connectResult(kGenerous), 0);
}

TEST(PacketQueueTest, GivesNoVerdictOnAPacketThatItDoesNotHold) {
  const auto queue =
      *PacketQueue::open([](mnl_socket* /*socket*/, const nlmsghdr* /*message*/) -> int {
        ADD_FAILURE();
        return 0;
      });
  EXPECT_FALSE(queue->isHeld(1));
  EXPECT_FALSE(queue->accept(1));
  queue->acceptAll();
}

TEST(PacketQueueTest, AcceptsEverythingThatItHolds) {
  const auto queue = openQueue();
  const auto table = installTable(*queue);
  TestListener origin("127.0.0.1", 8000);
  const Connecting first("127.0.0.1", 8000);
  const Connecting second("127.0.0.1", 8000);
  std::size_t held = 0;
  while (held < 2) {
    const auto more = waitForPackets(*queue, kGenerous).size();
    ASSERT_GT(more, 0U);
    held += more;
  }
  queue->acceptAll();
  EXPECT_EQ(first.connectResult(kGenerous), 0);
  EXPECT_EQ(second.connectResult(kGenerous), 0);
}

TEST(PacketQueueTest, HeldPacketsGoDirectOnRetransmissionAfterItsEnd) {
  auto queue = openQueue();
  const auto table = installTable(*queue);
  TestListener origin("127.0.0.1", 8000);
  const Connecting application("127.0.0.1", 8000);
  ASSERT_EQ(waitForPackets(*queue, kGenerous).size(), 1U);
  queue.reset();
  EXPECT_EQ(application.connectResult(kGenerous), 0);
}

}  // namespace
}  // namespace ostravel::linuxplatform
