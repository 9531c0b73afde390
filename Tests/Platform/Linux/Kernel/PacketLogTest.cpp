#include "Platform/Linux/Kernel/PacketLog.h"

#include <gtest/gtest.h>
#include <linux/netfilter_ipv4.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/Kernel/PacketParser.h"
#include "Platform/Linux/Kernel/TableChanges.h"
#include "Tests/Platform/Linux/Support/SocketTools.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;

constexpr const char* kTable = "copies";
constexpr std::uint16_t kPort = 4000;

struct Copy {
  bool isOutgoing = false;
  std::optional<uid_t> uid;
  std::uint32_t outputInterface = 0;
  std::string payload;
  std::size_t payloadSize = 0;
};

class PacketLogTest : public ::testing::Test {
 protected:
  // Copies what is sent to the port, and what comes from it.
  void copyWith(const PacketLog& log, std::optional<std::uint32_t> perSecond = std::nullopt) {
    TableChanges changes(kTable);
    changes.addChain("out", {"filter", TableChanges::Hook::output, NF_IP_PRI_FILTER});
    changes.addChain("in", {"filter", TableChanges::Hook::input, NF_IP_PRI_FILTER});
    NetfilterRule out(kTable, "out");
    out.protocol(TransportProtocol::udp).destinationPort(kPort);
    if (perSecond) {
      out.withinRate(*perSecond, *perSecond);
    }
    changes.add("rule", out.log(log.group()));
    NetfilterRule in(kTable, "in");
    changes.add("rule", in.protocol(TransportProtocol::udp).sourcePort(kPort).log(log.group()));
    socket_ = *openNetfilterSocket();
    const auto failure = changes.batch().commit(socket_.get());
    EXPECT_FALSE(failure) << failure->change << " " << failure->error;
  }

  static std::vector<Copy> receiveAll(PacketLog& log) {
    std::vector<Copy> copies;
    while (log.receive([&copies](const PacketLog::Packet& packet) {
      const auto parsed = parseTransportPacket(packet.bytes);
      ASSERT_TRUE(parsed);
      copies.push_back({packet.isOutgoing, packet.uid, packet.outputInterface,
                        std::string(reinterpret_cast<const char*>(parsed->payload.data()),
                                    parsed->payload.size()),
                        parsed->payloadSize});
    })) {
    }
    return copies;
  }

  // Datagrams to the port and back.
  void exchange(const std::string& text, int count = 1) {
    const auto server = makeSocket(AF_INET, SOCK_DGRAM);
    const auto client = makeSocket(AF_INET, SOCK_DGRAM);
    ASSERT_TRUE(bindTo(server, AF_INET, loopbackIPv4(kPort)));
    ASSERT_TRUE(connectTo(client, AF_INET, loopbackIPv4(kPort)));
    for (int index = 0; index < count; ++index) {
      ::send(client.get(), text.data(), text.size(), 0);
    }
    ASSERT_TRUE(connectTo(server, AF_INET, loopbackIPv4(portOf(client))));
    ::send(server.get(), text.data(), text.size(), 0);
    // A busy kernel may deliver it later, after its copy.
    std::array<char, 4096> received{};
    ASSERT_GT(::recv(client.get(), received.data(), received.size(), 0), 0);
  }

  NetlinkSocket socket_;
};

TEST_F(PacketLogTest, ReceivesCopiesThatArriveBeforeTheirPackets) {
  const auto log = *PacketLog::open();
  copyWith(*log);
  exchange("hello");
  const auto copies = receiveAll(*log);
  ASSERT_EQ(copies.size(), 2U);
  EXPECT_TRUE(copies[0].isOutgoing);
  EXPECT_EQ(copies[0].uid, ::geteuid());
  EXPECT_EQ(copies[0].outputInterface, ::if_nametoindex("lo"));
  EXPECT_EQ(copies[0].payload, "hello");
  EXPECT_FALSE(copies[1].isOutgoing);
  EXPECT_FALSE(copies[1].uid);
  EXPECT_EQ(copies[1].payload, "hello");
}

TEST_F(PacketLogTest, TruncatesLongPackets) {
  const auto log = *PacketLog::open();
  copyWith(*log);
  exchange(std::string(20'000, 'x'));
  const auto copies = receiveAll(*log);
  ASSERT_EQ(copies.size(), 2U);
  EXPECT_EQ(copies[0].payloadSize, 20'000U);
  EXPECT_LE(copies[0].payload.size(), PacketLog::kCopiedBytes);
  EXPECT_GT(copies[0].payload.size(), 4096U);
}

TEST_F(PacketLogTest, ARuleCanLimitTheRate) {
  const auto log = *PacketLog::open();
  copyWith(*log, 10);
  exchange("hello", 1000);
  EXPECT_LT(receiveAll(*log).size(), 100U);
}

TEST_F(PacketLogTest, UnreadCopiesAreLostWithoutAnError) {
  const auto log = *PacketLog::open();
  copyWith(*log);
  exchange(std::string(8000, 'x'), 2000);
  EXPECT_LT(receiveAll(*log).size(), 2001U);
  exchange("hello");
  EXPECT_EQ(receiveAll(*log).size(), 2U);
}

TEST_F(PacketLogTest, TakesAFreeGroup) {
  const auto first = *PacketLog::open();
  const auto second = *PacketLog::open();
  EXPECT_NE(first->group(), second->group());
  EXPECT_FALSE(second->receive([](const PacketLog::Packet&) { FAIL(); }));
}

}  // namespace
}  // namespace ostravel::linuxplatform
