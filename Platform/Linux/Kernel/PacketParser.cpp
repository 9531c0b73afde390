#include "Platform/Linux/Kernel/PacketParser.h"

#include <netinet/in.h>

#include <algorithm>

namespace ostravel::linuxplatform {

namespace {

constexpr std::size_t kIPv4MinimumHeader = 20;
constexpr std::size_t kIPv6Header = 40;
constexpr std::size_t kTCPFlags = 13;
constexpr unsigned kMaximumExtensionHeaders = 8;

// Bounds-checked big-endian reads; a read past the end makes the whole packet unreadable.
class Reader {
 public:
  explicit Reader(std::span<const std::byte> bytes) : bytes_(bytes) {}

  std::size_t size() const { return bytes_.size(); }
  bool has(std::size_t size) const { return bytes_.size() >= size; }
  void skip(std::size_t size) { bytes_ = bytes_.subspan(std::min(size, bytes_.size())); }

  std::uint8_t byte(std::size_t offset) const {
    return std::to_integer<std::uint8_t>(bytes_[offset]);
  }
  std::uint16_t word(std::size_t offset) const {
    return static_cast<std::uint16_t>(byte(offset) << 8U | byte(offset + 1));
  }
  std::uint32_t longWord(std::size_t offset) const {
    return static_cast<std::uint32_t>(word(offset)) << 16U | word(offset + 2);
  }
  void copyAddress(std::size_t offset, std::size_t size, SocketEndpoint& endpoint) const {
    for (std::size_t index = 0; index < size; ++index) {
      endpoint.address[index] = byte(offset + index);
    }
  }

 private:
  std::span<const std::byte> bytes_;
};

// Both leave the reader at the transport header and return its protocol number.

std::optional<std::uint8_t> readIPv4(Reader& reader, FlowTuple& tuple) {
  if (!reader.has(kIPv4MinimumHeader)) {
    return std::nullopt;
  }
  const std::size_t headerSize = (reader.byte(0) & 0x0FU) * std::size_t{4};
  constexpr std::uint16_t kFragmentOffset = 0x1FFF;
  if (headerSize < kIPv4MinimumHeader || (reader.word(6) & kFragmentOffset) != 0) {
    return std::nullopt;
  }
  const std::uint8_t protocol = reader.byte(9);
  tuple.source.family = tuple.destination.family = AddressFamily::ipv4;
  reader.copyAddress(12, 4, tuple.source);
  reader.copyAddress(16, 4, tuple.destination);
  reader.skip(headerSize);
  return protocol;
}

std::optional<std::uint8_t> readIPv6(Reader& reader, FlowTuple& tuple) {
  if (!reader.has(kIPv6Header)) {
    return std::nullopt;
  }
  std::uint8_t next = reader.byte(6);
  tuple.source.family = tuple.destination.family = AddressFamily::ipv6;
  reader.copyAddress(8, 16, tuple.source);
  reader.copyAddress(24, 16, tuple.destination);
  reader.skip(kIPv6Header);
  for (unsigned count = 0; count < kMaximumExtensionHeaders; ++count) {
    if (next != IPPROTO_HOPOPTS && next != IPPROTO_ROUTING && next != IPPROTO_DSTOPTS) {
      return next;
    }
    if (!reader.has(8)) {
      return std::nullopt;
    }
    next = reader.byte(0);
    reader.skip((reader.byte(1) + std::size_t{1}) * 8);
  }
  return std::nullopt;
}

struct Transport {
  FlowTuple tuple;
  // From the transport header on.
  Reader reader;
};

std::optional<Transport> readNetworkHeader(std::span<const std::byte> packet) {
  Transport transport{{}, Reader(packet)};
  Reader& reader = transport.reader;
  if (!reader.has(1)) {
    return std::nullopt;
  }
  std::optional<std::uint8_t> protocol;
  const unsigned version = reader.byte(0) >> 4U;
  if (version == 4) {
    protocol = readIPv4(reader, transport.tuple);
  } else if (version == 6) {
    protocol = readIPv6(reader, transport.tuple);
  }
  constexpr std::size_t kPortsAndSequence = 8;
  if ((protocol != IPPROTO_TCP && protocol != IPPROTO_UDP) || !reader.has(kPortsAndSequence)) {
    return std::nullopt;
  }
  transport.tuple.protocol =
      protocol == IPPROTO_TCP ? TransportProtocol::tcp : TransportProtocol::udp;
  transport.tuple.source.port = reader.word(0);
  transport.tuple.destination.port = reader.word(2);
  return transport;
}

// The packet's size according to its network header. A packet that the kernel has yet to split into
// segments may say 0; then the size of the given bytes.
std::size_t sizeInHeader(std::span<const std::byte> packet) {
  const Reader reader(packet);
  const bool isIPv4 = reader.byte(0) >> 4U == 4;
  const std::size_t size = isIPv4 ? reader.word(2) : reader.word(4) + kIPv6Header;
  return size > (isIPv4 ? 0 : kIPv6Header) ? size : packet.size();
}

}  // namespace

std::optional<FirstPacket> parseFirstPacket(std::span<const std::byte> packet) {
  const auto transport = readNetworkHeader(packet);
  if (!transport) {
    return std::nullopt;
  }
  const bool isTCP = transport->tuple.protocol == TransportProtocol::tcp;
  return FirstPacket{transport->tuple, isTCP ? transport->reader.longWord(4) : 0};
}

std::optional<TransportPacket> parseTransportPacket(std::span<const std::byte> packet) {
  const auto transport = readNetworkHeader(packet);
  if (!transport) {
    return std::nullopt;
  }
  const Reader& reader = transport->reader;
  TransportPacket parsed;
  parsed.tuple = transport->tuple;
  constexpr std::size_t kUDPHeader = 8;
  constexpr std::size_t kTCPMinimumHeader = 20;
  std::size_t headerSize = kUDPHeader;
  if (parsed.tuple.protocol == TransportProtocol::tcp) {
    if (!reader.has(kTCPMinimumHeader)) {
      return std::nullopt;
    }
    parsed.sequence = reader.longWord(4);
    parsed.flags = reader.byte(kTCPFlags);
    headerSize = (reader.byte(12) >> 4U) * std::size_t{4};
    if (headerSize < kTCPMinimumHeader) {
      return std::nullopt;
    }
  }
  const std::size_t before = packet.size() - reader.size() + headerSize;
  const std::size_t whole = sizeInHeader(packet);
  if (before > packet.size() || before > whole) {
    return std::nullopt;
  }
  parsed.payloadSize = whole - before;
  parsed.payload = packet.subspan(before);
  parsed.payload = parsed.payload.first(std::min(parsed.payload.size(), parsed.payloadSize));
  return parsed;
}

}  // namespace ostravel::linuxplatform
