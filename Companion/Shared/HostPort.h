#pragma once

#include <asio/ip/tcp.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ostravel::companion {

// A host and a port in the usual notation: name:443, 192.0.2.1:443, [2001:db8::1]:443.
struct HostPort {
  std::string host;  // without the brackets of an IPv6 address
  std::uint16_t port = 0;
};

// Parses this notation (RFC 9110, section 9.3.6). The port is required and may be 0; a host in
// brackets must be an IPv6 address, any other host consists of letters, digits, '-', '.' and '_'.
std::optional<HostPort> parseHostPort(std::string_view text);

// Empty if the host is a name.
std::optional<asio::ip::tcp::endpoint> literalEndpoint(const HostPort& hostPort);

// In the same notation, with brackets if needed.
std::string toString(const HostPort& hostPort);
std::string toString(const asio::ip::tcp::endpoint& endpoint);

}  // namespace ostravel::companion
