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
  // Of the requested addresses.
  AddressFamily family = AddressFamily::ipv4;

  friend bool operator==(const DNSQuestion&, const DNSQuestion&) = default;
};

// An address with port 0, and how long the answer may be kept.
struct ResolvedAddress {
  SocketEndpoint address;
  std::chrono::seconds timeToLive{};

  friend bool operator==(const ResolvedAddress&, const ResolvedAddress&) = default;
};

// Longer messages are not read; few messages with addresses are longer.
inline constexpr std::size_t kLongestDNSMessage = 4096;

// Empty unless the message is one query for IPv4 or IPv6 addresses of a name for which
// isUsableHostName.
std::optional<DNSQuestion> parseDNSQuestion(std::span<const std::byte> message);

// The ID by which an answer refers to its query; empty if the message is not a complete, positive
// answer. Reads only the header.
std::optional<std::uint16_t> idOfDNSAnswer(std::span<const std::byte> message);

// The addresses that the message gives for this question, directly or through aliases. The time to
// live is the shortest one along the aliases. Empty if the message is damaged or answers another
// question.
std::vector<ResolvedAddress> parseDNSAnswer(std::span<const std::byte> message,
                                            const DNSQuestion& question);

// The address in one resource record in wire format, uncompressed; for answers that are delivered
// record by record.
std::optional<ResolvedAddress> parseDNSRecord(std::span<const std::byte> record);

// True if the name, in lower case, is a valid host name and neither resembles an address literal
// nor refers to this machine.
bool isUsableHostName(std::string_view name);

}  // namespace ostravel::linuxplatform
