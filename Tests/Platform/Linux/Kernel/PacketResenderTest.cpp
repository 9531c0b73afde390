#include "Platform/Linux/Kernel/PacketResender.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/Interception/InterceptionTable.h"
#include "Platform/Linux/Kernel/PacketQueue.h"
#include "Tests/Platform/Linux/Support/NetworkFixture.h"
#include "Tests/Support/CommandOutput.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;
using namespace std::chrono_literals;

using Bytes = std::vector<std::byte>;

constexpr auto kGenerous = 20s;

Bytes bytesOf(std::initializer_list<int> values) {
  Bytes bytes;
  for (const int value : values) {
    bytes.push_back(static_cast<std::byte>(value));
  }
  return bytes;
}

// A SYN of 192.0.2.1 port 1025 to 192.0.2.2 port 80, with checksums that are 0.
Bytes ipv4(int length) {
  return bytesOf({0x45, 0, 0, length, 0, 0, 0, 0, 64, 6, 0, 0, 192,  0, 2, 1, 192, 0, 2, 2,
                  4,    1, 0, 80,     0, 0, 0, 1, 0,  0, 0, 0, 0x50, 2, 1, 0, 0,   0, 0, 0});
}

// The same from 2001:db8::1 to 2001:db8::2, with a payload of this length.
Bytes ipv6(int length) {
  return bytesOf({0x60, 0, 0,    0,    0, length, 6, 64,                          //
                  0x20, 1, 0x0d, 0xb8, 0, 0,      0, 0,  0, 0, 0, 0, 0, 0, 0, 1,  //
                  0x20, 1, 0x0d, 0xb8, 0, 0,      0, 0,  0, 0, 0, 0, 0, 0, 0, 2,  //
                  4,    1, 0,    80,   0, 0,      0, 1,  0, 0, 0, 0,              //
                  0x50, 2, 1,    0,    0, 0,      0, 0});
}

Bytes with(Bytes packet, std::initializer_list<int> more) {
  const Bytes bytes = bytesOf(more);
  packet.insert(packet.end(), bytes.begin(), bytes.end());
  return packet;
}

TEST(PacketWithoutDataTest, IsThePacketIfItHasNone) {
  EXPECT_EQ(PacketResender::withoutData(ipv4(40)), ipv4(40));
}

TEST(PacketWithoutDataTest, HasTheChecksumOfWhatIsLeft) {
  const Bytes expected = ipv4(40);
  const auto left = PacketResender::withoutData(with(ipv4(43), {1, 2, 3}));
  ASSERT_TRUE(left);
  EXPECT_EQ(std::vector(left->begin(), left->begin() + 36),
            std::vector(expected.begin(), expected.begin() + 36));
  // As a receiver tests it (RFC 9293, section 3.1).
  std::uint64_t sum = 6 + 20;
  for (std::size_t i = 12; i < left->size(); i += 2) {
    sum += std::to_integer<unsigned>((*left)[i]) << 8U | std::to_integer<unsigned>((*left)[i + 1]);
  }
  EXPECT_EQ((sum & 0xffff) + (sum >> 16U), 0xffffU);
  // The data may have been cut off.
  EXPECT_EQ(PacketResender::withoutData(ipv4(43)), left);
}

TEST(PacketWithoutDataTest, HasTheLengthOfWhatIsLeft) {
  EXPECT_EQ(PacketResender::withoutData(ipv6(20)), ipv6(20));
  const Bytes expected = ipv6(20);
  const auto left = PacketResender::withoutData(with(ipv6(23), {1, 2, 3}));
  ASSERT_TRUE(left);
  ASSERT_EQ(left->size(), expected.size());
  EXPECT_EQ(std::vector(left->begin(), left->begin() + 56),
            std::vector(expected.begin(), expected.begin() + 56));
}

TEST(PacketWithoutDataTest, IsEmptyForIncompleteHeaders) {
  const Bytes whole = ipv4(40);
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(PacketResender::withoutData(std::span(whole).first(size))) << size;
  }
  Bytes odd = whole;
  odd[32] = std::byte{0x40};
  EXPECT_FALSE(PacketResender::withoutData(odd));
  odd[32] = std::byte{0x60};
  EXPECT_FALSE(PacketResender::withoutData(odd));
  EXPECT_FALSE(PacketResender::withoutData(ipv4(39)));
  odd = whole;
  odd[0] = std::byte{0x75};
  EXPECT_FALSE(PacketResender::withoutData(odd));
  odd = whole;
  odd[9] = std::byte{IPPROTO_UDP};
  EXPECT_FALSE(PacketResender::withoutData(odd));
}

// An application's SYN in the queue, offered after the filters.
class PacketResenderTest : public ::testing::Test {
 protected:
  const std::shared_ptr<const PacketResender> resender_ = *PacketResender::open();
  const std::unique_ptr<PacketQueue> queue_ = *PacketQueue::open();
  const PacketMarks marks_{};
  TestListener loop_{"127.0.0.1"};
  TestListener loop6_{"::1"};
  const std::unique_ptr<InterceptionTable> table_ = *InterceptionTable::install(
      loopbackSettings(), marks_, queue_->number(), {{loop_.port(), loop6_.port()}},
      InterceptionTable::OfferPoint::afterFilters);

  void expectRedirected(const std::string& host, TestListener& listener) {
    TestListener origin(host, 8000);
    const Connecting application(host, 8000);
    const auto packets = waitForPackets(*queue_, kGenerous);
    ASSERT_EQ(packets.size(), 1U);
    EXPECT_TRUE(queue_->replace(packets[0].id, [&] {
      return resender_->resend(packets[0].bytes, packets[0].mark | marks_.redirect(0));
    }));
    EXPECT_FALSE(queue_->isHeld(packets[0].id));
    EXPECT_EQ(application.connectResult(kGenerous), 0);
    EXPECT_EQ(listener.acceptOne(kGenerous), application.localPort());
  }
};

TEST_F(PacketResenderTest, AResentPacketIsRedirected) {
  expectRedirected("127.0.0.1", loop_);
}

TEST_F(PacketResenderTest, AResentIPv6PacketIsRedirected) {
  expectRedirected("::1", loop6_);
}

TEST_F(PacketResenderTest, APacketThatCannotBeResentIsAccepted) {
  TestListener origin("127.0.0.1", 8000);
  const Connecting application("127.0.0.1", 8000);
  const auto packets = waitForPackets(*queue_, kGenerous);
  ASSERT_EQ(packets.size(), 1U);
  const auto resend = [this] { return resender_->resend({}, 0); };
  EXPECT_TRUE(queue_->replace(packets[0].id, resend));
  EXPECT_FALSE(queue_->replace(packets[0].id, resend));
  EXPECT_EQ(application.connectResult(kGenerous), 0);
  EXPECT_EQ(origin.acceptOne(kGenerous), application.localPort());
}

TEST_F(PacketResenderTest, WhatAFilterRejectsIsNotOffered) {
  outputOf(
      "nft 'add table inet foreign; add chain inet foreign out { type filter hook output priority "
      "10; }; add rule inet foreign out meta skuid 0 tcp dport 8000 reject with tcp reset'");
  EXPECT_EQ(Connecting("127.0.0.1", 8000).connectResult(kGenerous), ECONNREFUSED);
  EXPECT_TRUE(waitForPackets(*queue_, 0ms).empty());
}

TEST_F(PacketResenderTest, ATranslatedDestinationIsNotOffered) {
  TestListener elsewhere("127.0.0.1");
  outputOf(
      "nft 'add table ip foreign; add chain ip foreign out { type nat hook output priority -100; "
      "}; add rule ip foreign out ip daddr 127.0.0.9 tcp dport 8000 dnat to 127.0.0.1:8000'");
  TestListener origin("127.0.0.1", 8000);
  const Connecting application("127.0.0.9", 8000);
  EXPECT_EQ(application.connectResult(kGenerous), 0);
  EXPECT_EQ(origin.acceptOne(kGenerous), application.localPort());
  EXPECT_TRUE(waitForPackets(*queue_, 0ms).empty());
}

}  // namespace
}  // namespace ostravel::linuxplatform
