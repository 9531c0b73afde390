#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Linux/Kernel/FlowTuple.h"

namespace ostravel::linuxplatform {

// A query for the addresses of a host (RFC 1035, section 4.1).
struct DNSQuestion {
  std::uint16_t id = 0;
  // In lower case, without a final dot.
  std::string name;
  // Of the addresses asked for.
  AddressFamily family = AddressFamily::ipv4;

  friend bool operator==(const DNSQuestion&, const DNSQuestion&) = default;
};

// An address with port 0, and how long the answer may be kept.
struct ResolvedAddress {
  SocketEndpoint address;
  std::chrono::seconds timeToLive{};

  friend bool operator==(const ResolvedAddress&, const ResolvedAddress&) = default;
};

// Longer messages are not read; few that carry addresses are.
inline constexpr std::size_t kLongestDNSMessage = 4096;

// Empty unless the message is one query for IPv4 or IPv6 addresses of a name for which
// isUsableHostName.
std::optional<DNSQuestion> parseDNSQuestion(std::span<const std::byte> message);

// The number by which an answer refers to its query; empty if the message is no complete, positive
// answer. Reads only the header.
std::optional<std::uint16_t> idOfDNSAnswer(std::span<const std::byte> message);

// The addresses that the message gives for this question, directly or through aliases. The time to
// live is the shortest on that way. Empty if the message is damaged or answers something else.
std::vector<ResolvedAddress> parseDNSAnswer(std::span<const std::byte> message,
                                            const DNSQuestion& question);

// The addresses in one resource record in wire format, not compressed; for answers that are
// delivered record by record.
std::optional<ResolvedAddress> parseDNSRecord(std::span<const std::byte> record);

// True if the name, in lower case, can be a host's and cannot be confused with anything else: not
// with an address literal, and not with this machine.
bool isUsableHostName(std::string_view name);

}  // namespace ostravel::linuxplatform
