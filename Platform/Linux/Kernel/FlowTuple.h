#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace ostravel::linuxplatform {

enum class AddressFamily : std::uint8_t { ipv4, ipv6 };
enum class TransportProtocol : std::uint8_t { tcp, udp };

// An address and a port. Addresses are in network byte order, IPv4 in the first four bytes with the
// other bytes zero; ports are in host byte order.
struct SocketEndpoint {
  AddressFamily family = AddressFamily::ipv4;
  std::array<std::uint8_t, 16> address{};
  std::uint16_t port = 0;

  // Port 0 at the address of a literal without brackets and zone; empty if the text is no such
  // literal.
  static std::optional<SocketEndpoint> atAddress(const std::string& literal);

  // The address as a literal without brackets and zone.
  std::string addressText() const;

  // NOLINTNEXTLINE(modernize-use-nullptr): means the zero that comparisons are rewritten with
  friend auto operator<=>(const SocketEndpoint&, const SocketEndpoint&) = default;
};

// Identifies a flow in this network namespace, as seen in its first packet. Both ends have the same
// family.
struct FlowTuple {
  TransportProtocol protocol = TransportProtocol::tcp;
  SocketEndpoint source;
  SocketEndpoint destination;

  // NOLINTNEXTLINE(modernize-use-nullptr): means the zero that comparisons are rewritten with
  friend auto operator<=>(const FlowTuple&, const FlowTuple&) = default;
};

struct SocketEndpointHash {
  std::size_t operator()(const SocketEndpoint& endpoint) const noexcept {
    const std::string_view bytes(reinterpret_cast<const char*>(endpoint.address.data()),
                                 endpoint.address.size());
    return std::hash<std::string_view>{}(bytes) ^ (std::size_t{endpoint.port} << 1U) ^
           static_cast<std::size_t>(endpoint.family);
  }
};

struct FlowTupleHash {
  std::size_t operator()(const FlowTuple& tuple) const noexcept {
    // Keeps the two directions of a connection apart.
    constexpr std::size_t kMix = 0x9E3779B97F4A7C15U;
    const SocketEndpointHash hash;
    return hash(tuple.source) * kMix + hash(tuple.destination);
  }
};

}  // namespace ostravel::linuxplatform
