#include "Platform/Linux/Kernel/PacketParser.h"

#include <gtest/gtest.h>

#include <vector>

namespace ostravel::linuxplatform {
namespace {

using Bytes = std::vector<std::uint8_t>;

std::optional<FirstPacket> parse(const Bytes& bytes) {
  return parseFirstPacket(std::as_bytes(std::span(bytes)));
}

// 10.0.0.2:49152 -> 192.0.2.10:443, sequence number 0x01020304.
const Bytes kPorts = {0xC0, 0x00, 0x01, 0xBB, 0x01, 0x02, 0x03, 0x04};

Bytes ipv4Packet(std::uint8_t protocol) {
  Bytes packet = {0x45, 0, 0, 40, 0, 0, 0x40, 0, 64, protocol, 0, 0, 10, 0, 0, 2, 192, 0, 2, 10};
  packet.insert(packet.end(), kPorts.begin(), kPorts.end());
  return packet;
}

// 2001:db8::2 -> 2001:db8::1
Bytes ipv6Header(std::uint8_t next) {
  return {0x60, 0, 0,    0,    0, 8, next, 64,                          //
          0x20, 1, 0x0D, 0xB8, 0, 0, 0,    0,  0, 0, 0, 0, 0, 0, 0, 2,  //
          0x20, 1, 0x0D, 0xB8, 0, 0, 0,    0,  0, 0, 0, 0, 0, 0, 0, 1};
}

constexpr std::uint8_t kTCP = 6;
constexpr std::uint8_t kUDP = 17;
constexpr std::uint8_t kICMP = 1;
constexpr std::uint8_t kHopByHop = 0;
constexpr std::uint8_t kFragment = 44;

TEST(PacketParser, ReadsAddressesPortsAndSequenceNumberOfTCPOverIPv4) {
  const auto packet = parse(ipv4Packet(kTCP));
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->tuple.protocol, TransportProtocol::tcp);
  EXPECT_EQ(packet->tuple.source.addressText(), "10.0.0.2");
  EXPECT_EQ(packet->tuple.source.port, 49152);
  EXPECT_EQ(packet->tuple.destination.addressText(), "192.0.2.10");
  EXPECT_EQ(packet->tuple.destination.port, 443);
  EXPECT_EQ(packet->initialSequence, 0x01020304U);
  // Tuples are compared with all bytes of their addresses.
  FlowTuple expected;
  expected.source = {AddressFamily::ipv4, {10, 0, 0, 2}, 49152};
  expected.destination = {AddressFamily::ipv4, {192, 0, 2, 10}, 443};
  EXPECT_EQ(packet->tuple, expected);
}

TEST(PacketParser, ReadsUDPOverIPv6WithoutASequenceNumber) {
  Bytes bytes = ipv6Header(kUDP);
  bytes.insert(bytes.end(), kPorts.begin(), kPorts.end());
  const auto packet = parse(bytes);
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->tuple.protocol, TransportProtocol::udp);
  EXPECT_EQ(packet->tuple.source.family, AddressFamily::ipv6);
  EXPECT_EQ(packet->tuple.source.addressText(), "2001:db8::2");
  EXPECT_EQ(packet->tuple.source.port, 49152);
  EXPECT_EQ(packet->tuple.destination.addressText(), "2001:db8::1");
  EXPECT_EQ(packet->initialSequence, 0U);
}

TEST(PacketParser, SkipsIPv4Options) {
  Bytes bytes = ipv4Packet(kTCP);
  bytes[0] = 0x46;
  bytes.insert(bytes.begin() + 20, {1, 1, 1, 0});
  const auto packet = parse(bytes);
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->tuple.destination.port, 443);
}

TEST(PacketParser, SkipsIPv6ExtensionHeaders) {
  Bytes bytes = ipv6Header(kHopByHop);
  bytes.insert(bytes.end(), {kTCP, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
  bytes.insert(bytes.end(), kPorts.begin(), kPorts.end());
  const auto packet = parse(bytes);
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->tuple.source.port, 49152);
}

TEST(PacketParser, SkipsAtMostSevenIPv6ExtensionHeaders) {
  const auto withHeaders = [](int headers) {
    Bytes bytes = ipv6Header(kHopByHop);
    for (int number = 1; number <= headers; ++number) {
      const std::uint8_t next = number == headers ? kTCP : kHopByHop;
      bytes.insert(bytes.end(), {next, 0, 0, 0, 0, 0, 0, 0});
    }
    bytes.insert(bytes.end(), kPorts.begin(), kPorts.end());
    return bytes;
  };
  EXPECT_TRUE(parse(withHeaders(7)));
  EXPECT_FALSE(parse(withHeaders(8)));
}

TEST(PacketParser, RefusesOtherProtocolsAndFragments) {
  EXPECT_FALSE(parse(ipv4Packet(kICMP)));
  Bytes laterFragment = ipv4Packet(kUDP);
  laterFragment[7] = 1;
  EXPECT_FALSE(parse(laterFragment));
  Bytes ipv6Fragment = ipv6Header(kFragment);
  ipv6Fragment.insert(ipv6Fragment.end(), kPorts.begin(), kPorts.end());
  EXPECT_FALSE(parse(ipv6Fragment));
}

TEST(PacketParser, RefusesEveryTruncatedPacket) {
  for (const Bytes& whole : {ipv4Packet(kTCP), ipv6Header(kTCP)}) {
    for (std::size_t size = 0; size + 1 < whole.size(); ++size) {
      EXPECT_FALSE(parse(Bytes(whole.begin(), whole.begin() + static_cast<long>(size)))) << size;
    }
  }
}

TEST(PacketParser, RefusesEveryTruncatedIPv6ExtensionHeader) {
  for (std::size_t size = 0; size < 8; ++size) {
    Bytes bytes = ipv6Header(kHopByHop);
    bytes.resize(bytes.size() + size, kTCP);
    EXPECT_FALSE(parse(bytes)) << size;
    EXPECT_FALSE(parseTransportPacket(std::as_bytes(std::span(bytes)))) << size;
  }
}

TEST(PacketParser, RefusesAHeaderLengthBelowTheMinimumAndUnknownVersions) {
  Bytes shortHeader = ipv4Packet(kTCP);
  shortHeader[0] = 0x44;
  EXPECT_FALSE(parse(shortHeader));
  Bytes unknownVersion = ipv4Packet(kTCP);
  unknownVersion[0] = 0x55;
  EXPECT_FALSE(parse(unknownVersion));
}

std::optional<TransportPacket> parseTransport(const Bytes& bytes) {
  return parseTransportPacket(std::as_bytes(std::span(bytes)));
}

// A datagram "abc" with the total length in its header.
Bytes ipv4Datagram() {
  Bytes packet = ipv4Packet(kUDP);
  packet.resize(20 + 8);
  packet.insert(packet.end(), {'a', 'b', 'c'});
  packet[3] = static_cast<std::uint8_t>(packet.size());
  return packet;
}

TEST(PacketParser, FindsThePayloadOfADatagram) {
  const Bytes bytes = ipv4Datagram();
  const auto packet = parseTransport(bytes);
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->tuple, parse(bytes)->tuple);
  EXPECT_EQ(packet->payload.size(), 3U);
  EXPECT_EQ(packet->payload[0], std::byte{'a'});
  EXPECT_EQ(packet->payloadSize, 3U);
  EXPECT_EQ(packet->flags, 0);
}

TEST(PacketParser, IgnoresWhatFollowsAPacketAndReportsWhatIsMissing) {
  Bytes bytes = ipv4Datagram();
  bytes.push_back('x');
  EXPECT_EQ(parseTransport(bytes)->payload.size(), 3U);
  bytes.resize(bytes.size() - 2);
  EXPECT_EQ(parseTransport(bytes)->payload.size(), 2U);
  EXPECT_EQ(parseTransport(bytes)->payloadSize, 3U);
}

TEST(PacketParser, ReadsFlagsSequenceAndPayloadOfATCPSegment) {
  Bytes bytes = ipv6Header(kTCP);
  bytes.insert(bytes.end(), kPorts.begin(), kPorts.end());
  // Acknowledgement, a header of 24 bytes with SYN and ACK, window, checksum, urgent, an option.
  bytes.insert(bytes.end(), {0, 0, 0, 0, 0x60, 0x12, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 'h', 'i'});
  bytes[5] = static_cast<std::uint8_t>(bytes.size() - 40);
  const auto packet = parseTransport(bytes);
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->sequence, 0x01020304U);
  EXPECT_EQ(packet->flags, 0x12);
  EXPECT_EQ(packet->payload.size(), 2U);
  EXPECT_EQ(packet->payload[1], std::byte{'i'});
  EXPECT_EQ(packet->payloadSize, 2U);
  bytes.push_back('x');
  EXPECT_EQ(parseTransport(bytes)->payload.size(), 2U);
  bytes.resize(bytes.size() - 2);
  EXPECT_EQ(parseTransport(bytes)->payloadSize, 2U);
  // Not split up yet.
  bytes[5] = 0;
  EXPECT_EQ(parseTransport(bytes)->payloadSize, 1U);
}

TEST(PacketParser, APacketThatHasNotBeenSplitUpIsAsLongAsItIs) {
  Bytes bytes = ipv4Datagram();
  bytes[3] = 0;
  EXPECT_EQ(parseTransport(bytes)->payloadSize, 3U);
}

TEST(PacketParser, RejectsTransportHeadersThatAreTruncatedOrTooShort) {
  EXPECT_FALSE(parseTransport(ipv4Packet(kTCP)));
  Bytes bytes = ipv4Packet(kTCP);
  bytes.resize(20 + 20);
  bytes[3] = 40;
  bytes[20 + 12] = 0x40;
  EXPECT_FALSE(parseTransport(bytes));
  bytes[20 + 12] = 0x50;
  EXPECT_TRUE(parseTransport(bytes));
  bytes[20 + 12] = 0x60;
  EXPECT_FALSE(parseTransport(bytes));
  // The network header leaves no room for the transport header.
  Bytes datagram = ipv4Datagram();
  datagram[3] = 27;
  EXPECT_FALSE(parseTransport(datagram));
}

}  // namespace
}  // namespace ostravel::linuxplatform
