#include "Platform/Linux/Names/DNSMessageStreams.h"

#include <utility>

namespace ostravel::linuxplatform {

namespace {

// RFC 9293, section 3.1.
constexpr std::uint8_t kFin = 0x01;
constexpr std::uint8_t kSyn = 0x02;
constexpr std::uint8_t kRst = 0x04;

constexpr std::size_t kLengthField = 2;

}  // namespace

void DNSMessageStreams::receive(const TransportPacket& packet,
                                const std::function<void(std::span<const std::byte>)>& handler) {
  if ((packet.flags & kSyn) != 0) {
    begin(packet);
  }
  const auto found = positions_.find(packet.tuple);
  if (found == positions_.end()) {
    return;
  }
  Stream& stream = *found->second;
  if (!append(stream, packet) || !takeMessages(stream, handler) ||
      (packet.flags & (kFin | kRst)) != 0) {
    end(packet.tuple);
    return;
  }
  streams_.splice(streams_.begin(), streams_, found->second);
}

void DNSMessageStreams::begin(const TransportPacket& packet) {
  end(packet.tuple);
  streams_.push_front({packet.tuple, packet.sequence + 1, {}});
  positions_.emplace(packet.tuple, streams_.begin());
  if (streams_.size() > kCapacity) {
    end(streams_.back().tuple);
  }
}

void DNSMessageStreams::end(const FlowTuple& tuple) {
  const auto found = positions_.find(FlowTuple(tuple));
  if (found != positions_.end()) {
    streams_.erase(found->second);
    positions_.erase(found);
  }
}

bool DNSMessageStreams::append(Stream& stream, const TransportPacket& packet) {
  // A SYN occupies one sequence number before its payload (RFC 7413).
  const std::uint32_t first = packet.sequence + ((packet.flags & kSyn) != 0 ? 1 : 0);
  // Modulo 2^32; bytes that have been received before are skipped.
  const std::uint32_t known = stream.next - first;
  constexpr std::uint32_t kHalf = 0x80000000;
  if (known >= kHalf || packet.payload.size() != packet.payloadSize) {
    return packet.payloadSize == 0;
  }
  if (known >= packet.payload.size()) {
    return true;
  }
  const auto added = packet.payload.subspan(known);
  stream.bytes.insert(stream.bytes.end(), added.begin(), added.end());
  stream.next += static_cast<std::uint32_t>(added.size());
  return true;
}

bool DNSMessageStreams::takeMessages(
    Stream& stream, const std::function<void(std::span<const std::byte>)>& handler) {
  std::span<const std::byte> left = stream.bytes;
  while (left.size() >= kLengthField) {
    const std::size_t size =
        std::to_integer<std::size_t>(left[0]) << 8U | std::to_integer<std::size_t>(left[1]);
    if (size > kLongestDNSMessage) {
      return false;
    }
    if (left.size() < kLengthField + size) {
      break;
    }
    handler(left.subspan(kLengthField, size));
    left = left.subspan(kLengthField + size);
  }
  stream.bytes.erase(stream.bytes.begin(),
                     stream.bytes.end() - static_cast<std::ptrdiff_t>(left.size()));
  return true;
}

}  // namespace ostravel::linuxplatform
