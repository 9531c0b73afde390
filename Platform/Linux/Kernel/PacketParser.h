#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "Platform/Linux/Kernel/FlowTuple.h"

namespace ostravel::linuxplatform {

// What the first packet of a flow tells about it.
struct FirstPacket {
  FlowTuple tuple;
  // TCP's initial sequence number; a retransmitted SYN has the same one. 0 for UDP.
  std::uint32_t initialSequence = 0;

  friend bool operator==(const FirstPacket&, const FirstPacket&) = default;
};

// Reads an IPv4 or IPv6 packet from its network header on (RFC 791, RFC 8200) up to the ports of
// TCP or UDP. Absent when it is anything else, a later fragment, or cut off too early.
std::optional<FirstPacket> parseFirstPacket(std::span<const std::byte> packet);

}  // namespace ostravel::linuxplatform
