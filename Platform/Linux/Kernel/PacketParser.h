#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "Platform/Linux/Kernel/FlowTuple.h"

namespace ostravel::linuxplatform {

// The contents of a flow's first packet.
struct FirstPacket {
  FlowTuple tuple;
  // TCP's initial sequence number, equal in retransmitted SYNs. 0 for UDP.
  std::uint32_t initialSequence = 0;

  friend bool operator==(const FirstPacket&, const FirstPacket&) = default;
};

// A packet of TCP or UDP.
struct TransportPacket {
  FlowTuple tuple;
  // Both 0 for UDP.
  std::uint32_t sequence = 0;
  // As in the header of TCP (RFC 9293).
  std::uint8_t flags = 0;
  // Within the bytes that were parsed.
  std::span<const std::byte> payload;
  // The payload's size according to the packet's headers; larger than payload if the packet was
  // truncated.
  std::size_t payloadSize = 0;
};

// Parses an IPv4 or IPv6 packet (RFC 791, RFC 8200) from its network header to the ports of TCP or
// UDP. Empty if it is anything else, a later fragment, or truncated.
std::optional<FirstPacket> parseFirstPacket(std::span<const std::byte> packet);

// The same for any packet, with its payload. Empty also if the transport header is truncated.
std::optional<TransportPacket> parseTransportPacket(std::span<const std::byte> packet);

}  // namespace ostravel::linuxplatform
