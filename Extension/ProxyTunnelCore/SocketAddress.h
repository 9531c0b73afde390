#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Interface/SocketCalls.h"

namespace ostravel {

// Socket addresses in the format of system calls, for either layout on either system.

// sockaddr_in, 16 bytes:
//
//   linux   | family (2, host order) | port (2, network order) | address (4) | zero (8) |
//   darwin  | length (1) = 0 | family (1) | port (2)            | address (4) | zero (8) |
//
// Absent if host is not an IPv4 dotted quad; names are never resolved.
std::optional<std::vector<std::byte>> makeIPv4SocketAddress(platform::SocketAddressLayout layout,
                                                            const std::string& host,
                                                            std::uint16_t port);

// The smallest sun_path of the supported systems, including the terminating NUL.
inline constexpr std::size_t kLocalSocketPathCapacity = 104;

// sockaddr_un, truncated after the path's last byte, so 2 + path bytes:
//
//   linux   | family (2, host order)          | path |
//   darwin  | length (1) = 0 | family (1)     | path |
//
// The kernels add the terminating NUL. Absent if the path with its NUL is longer than
// kLocalSocketPathCapacity.
std::optional<std::vector<std::byte>> makeLocalSocketAddress(platform::SocketAddressLayout layout,
                                                             std::string_view path);

}  // namespace ostravel
