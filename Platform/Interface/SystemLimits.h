#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>

// Limits that both the core and a platform depend on. Limits of one platform are in that platform's
// own list.
namespace ostravel::platform::limits {

// The address of the local proxy.
inline constexpr std::string_view kProxyHost = "127.0.0.1";
inline constexpr std::uint16_t kProxyPort = 8080;

// Limit on concurrent CONNECT handshakes. Enough for a browser that opens a heavy page; small
// enough that a hung proxy holds few flows.
inline constexpr std::size_t kMaxPendingHandshakes = 48;

// How long a handshake may take, from the start of the connection: users wait for it.
inline constexpr std::chrono::seconds kHandshakeTimeout{5};

// Limit on the proxy's answer to CONNECT while its end has not arrived; far larger than any proxy's
// answer.
inline constexpr std::size_t kMaxProxyAnswer = 16384;

// How long a probe of the proxy may take: a tick of the health loop, one second, includes it.
inline constexpr std::chrono::milliseconds kProbeTimeout{350};

// Limit on the bytes that one read of a relay delivers; bounds the memory of one direction of a
// tunnel.
inline constexpr std::size_t kMaxRelayRead = 512 * 1024;

}  // namespace ostravel::platform::limits
