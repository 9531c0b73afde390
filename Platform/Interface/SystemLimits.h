#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// Limits that both the core and a platform depend on. Limits of one platform are in that platform's
// own list.
namespace ostravel::platform::limits {

// Where the local proxy listens.
inline constexpr std::string_view kProxyHost = "127.0.0.1";
inline constexpr std::uint16_t kProxyPort = 8080;

// How many tunnels may be in the CONNECT handshake at once. Enough for a browser opening a heavy
// page; small enough that a hung proxy holds few flows.
inline constexpr std::size_t kMaxPendingHandshakes = 48;

// What one read of a relay may deliver; bounds the memory that one direction of a tunnel holds.
inline constexpr std::size_t kMaxRelayRead = 512 * 1024;

}  // namespace ostravel::platform::limits
