#include "Platform/Linux/Interception/RecentFlows.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <utility>

namespace ostravel::linuxplatform {

class RecentFlowsTestPeer {
 public:
  static std::uint64_t fingerprintOf(const RecentFlows& flows, const FirstPacket& packet) {
    return flows.fingerprintOf(packet);
  }
};

namespace {

using namespace std::chrono_literals;

const RecentFlows::TimePoint kNow{1000s};

FirstPacket packetFrom(std::uint16_t port, std::uint32_t sequence = 1) {
  FirstPacket packet;
  packet.tuple.source.port = port;
  packet.initialSequence = sequence;
  return packet;
}

FirstPacket datagramFrom(std::uint16_t port) {
  FirstPacket packet = packetFrom(port, 0);
  packet.tuple.protocol = TransportProtocol::udp;
  return packet;
}

TEST(RecentFlows, DistinguishesARetransmissionFromANewConnection) {
  RecentFlows flows(10);
  flows.remember(packetFrom(4000, 7), kNow);
  EXPECT_TRUE(flows.contains(packetFrom(4000, 7), kNow));
  EXPECT_FALSE(flows.contains(packetFrom(4000, 8), kNow));
  EXPECT_FALSE(flows.contains(packetFrom(4001, 7), kNow));
}

TEST(RecentFlows, KnowsNoFlowAtFirst) {
  EXPECT_FALSE(RecentFlows(10).contains(packetFrom(4000), kNow));
}

// A search ends at a free place.
TEST(RecentFlows, EndsTheSearchForAnUnknownFlowHoweverManyItKnows) {
  constexpr std::uint16_t kCapacity = 1024;
  RecentFlows flows(kCapacity);
  for (std::uint16_t port = 1; port <= kCapacity; ++port) {
    flows.remember(packetFrom(port), kNow);
    EXPECT_FALSE(flows.contains(packetFrom(0), kNow));
  }
}

TEST(RecentFlows, KeepsTCPForItsRetransmissionsAndUDPForHalfAMinute) {
  RecentFlows flows(10);
  flows.remember(packetFrom(4000), kNow);
  flows.remember(datagramFrom(4000), kNow);
  EXPECT_TRUE(flows.contains(packetFrom(4000), kNow + 127s));
  EXPECT_FALSE(flows.contains(packetFrom(4000), kNow + 130s));
  EXPECT_TRUE(flows.contains(datagramFrom(4000), kNow + 29s));
  EXPECT_FALSE(flows.contains(datagramFrom(4000), kNow + 30s));
}

TEST(RecentFlows, ForgetsTheOldestFirstWhenFull) {
  RecentFlows flows(3);
  for (std::uint16_t port = 1; port <= 4; ++port) {
    flows.remember(packetFrom(port), kNow);
  }
  EXPECT_EQ(flows.size(), 3U);
  EXPECT_FALSE(flows.contains(packetFrom(1), kNow));
  EXPECT_TRUE(flows.contains(packetFrom(2), kNow));
  EXPECT_TRUE(flows.contains(packetFrom(4), kNow));
}

TEST(RecentFlows, ForgetsExpiredFlows) {
  RecentFlows flows(100);
  for (std::uint16_t port = 1; port <= 50; ++port) {
    flows.remember(datagramFrom(port), kNow);
  }
  flows.remember(datagramFrom(99), kNow + 30s);
  EXPECT_EQ(flows.size(), 1U);
}

// Its clock starts with the first flow: otherwise it would begin anew one minute after this.
TEST(RecentFlows, KeepsFlowsHoweverLongTheMachineHasBeenRunning) {
  constexpr RecentFlows::TimePoint kAfterEightYears{std::chrono::seconds(1 << 28) - 60s};
  RecentFlows flows(10);
  flows.remember(packetFrom(4000), kAfterEightYears);
  EXPECT_TRUE(flows.contains(packetFrom(4000), kAfterEightYears));
  EXPECT_TRUE(flows.contains(packetFrom(4000), kAfterEightYears + 127s));
}

TEST(RecentFlows, KeepsAFlowThatIsRememberedAgain) {
  RecentFlows flows(100);
  flows.remember(datagramFrom(1), kNow);
  flows.remember(datagramFrom(1), kNow + 20s);
  flows.remember(datagramFrom(2), kNow + 35s);
  EXPECT_TRUE(flows.contains(datagramFrom(1), kNow + 35s));
}

TEST(RecentFlows, DistinguishesAddressesFamiliesAndProtocols) {
  RecentFlows flows(10);
  FirstPacket packet = packetFrom(4000, 0);
  packet.tuple.destination.port = 443;
  flows.remember(packet, kNow);
  FirstPacket other = packet;
  other.tuple.destination.address[3] = 1;
  EXPECT_FALSE(flows.contains(other, kNow));
  other = packet;
  other.tuple.source.address[15] = 1;
  EXPECT_FALSE(flows.contains(other, kNow));
  other = packet;
  other.tuple.source.family = AddressFamily::ipv6;
  EXPECT_FALSE(flows.contains(other, kNow));
  other = packet;
  std::swap(other.tuple.source.port, other.tuple.destination.port);
  EXPECT_FALSE(flows.contains(other, kNow));
  other = packet;
  other.tuple.protocol = TransportProtocol::udp;
  EXPECT_FALSE(flows.contains(other, kNow));
}

// Otherwise a user could choose flows whose places in the table are close together, or that are
// taken for each other.
TEST(RecentFlows, EveryTableHasItsOwnSecret) {
  constexpr int kPackets = 64;
  const RecentFlows one(1);
  const RecentFlows other(1);
  for (std::uint16_t port = 0; port < kPackets; ++port) {
    const FirstPacket packet = packetFrom(port);
    EXPECT_NE(RecentFlowsTestPeer::fingerprintOf(one, packet),
              RecentFlowsTestPeer::fingerprintOf(other, packet));
    EXPECT_EQ(RecentFlowsTestPeer::fingerprintOf(one, packet),
              RecentFlowsTestPeer::fingerprintOf(one, packet));
  }
}

// With a secret that only moved every place, neighbours would stay neighbours.
TEST(RecentFlows, ACollisionInOneTableIsNotOneInAnother) {
  constexpr std::uint64_t kPlaces = 1024;
  constexpr std::uint32_t kCandidates = 16 * kPlaces;
  const RecentFlows one(1);
  const FirstPacket first = packetFrom(1, 0);
  const auto placeOf = [](const RecentFlows& flows, const FirstPacket& packet) {
    return RecentFlowsTestPeer::fingerprintOf(flows, packet) % kPlaces;
  };
  const RecentFlows other(1);
  int inOne = 0;
  int inBoth = 0;
  for (std::uint32_t sequence = 1; sequence <= kCandidates; ++sequence) {
    const FirstPacket packet = packetFrom(1, sequence);
    if (placeOf(one, packet) == placeOf(one, first)) {
      ++inOne;
      inBoth += placeOf(other, packet) == placeOf(other, first) ? 1 : 0;
    }
  }
  // About sixteen, and one in a thousand of those.
  EXPECT_GE(inOne, 2);
  EXPECT_LE(inBoth, 2);
  EXPECT_LT(inBoth, inOne);
}

// Compared with a plain list, for as long as it takes until all its numbers have been reused.
TEST(RecentFlows, KnowsThoseOfTheLastMinutesHoweverManyThereWere) {
  constexpr std::uint32_t kCapacity = 1000;
  constexpr std::uint32_t kFlows = 200'000;
  RecentFlows flows(kCapacity);
  RecentFlows::TimePoint now = kNow;
  for (std::uint32_t flow = 1; flow <= kFlows; ++flow) {
    now += 100ms;
    flows.remember(packetFrom(static_cast<std::uint16_t>(flow % 7), flow), now);
    ASSERT_TRUE(flows.contains(packetFrom(static_cast<std::uint16_t>(flow % 7), flow), now));
    ASSERT_LE(flows.size(), kCapacity);
    if (flow > kCapacity && flow % 997 == 0) {
      for (std::uint32_t age = 0; age < kCapacity; age += 11) {
        const std::uint32_t earlier = flow - age;
        ASSERT_TRUE(
            flows.contains(packetFrom(static_cast<std::uint16_t>(earlier % 7), earlier), now));
      }
      const std::uint32_t dropped = flow - kCapacity;
      ASSERT_FALSE(
          flows.contains(packetFrom(static_cast<std::uint16_t>(dropped % 7), dropped), now));
    }
  }
}

}  // namespace
}  // namespace ostravel::linuxplatform
