#include "Extension/ProxyTunnelCore/SocketAddress.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <array>
#include <bit>
#include <cstring>
#include <span>

namespace ostravel {

namespace {

using platform::SocketAddressLayout;

std::vector<std::byte> addressHeader(SocketAddressLayout layout, int family) {
  if (layout == SocketAddressLayout::darwinABI) {
    return {std::byte{0}, static_cast<std::byte>(family)};
  }
  const auto bytes = std::bit_cast<std::array<std::byte, 2>>(static_cast<std::uint16_t>(family));
  return {bytes.begin(), bytes.end()};
}

void append(std::vector<std::byte>& address, std::span<const std::byte> bytes) {
  address.insert(address.end(), bytes.begin(), bytes.end());
}

}  // namespace

std::optional<std::vector<std::byte>> makeIPv4SocketAddress(SocketAddressLayout layout,
                                                            const std::string& host,
                                                            std::uint16_t port) {
  constexpr std::size_t kSize = 16;
  in_addr parsed{};
  if (::inet_pton(AF_INET, host.c_str(), &parsed) != 1 || host.find('\0') != std::string::npos) {
    return std::nullopt;
  }
  const std::uint16_t portInNetworkOrder = htons(port);
  auto address = addressHeader(layout, AF_INET);
  append(address, std::as_bytes(std::span(&portInNetworkOrder, 1)));
  append(address, std::as_bytes(std::span(&parsed.s_addr, 1)));
  address.resize(kSize);
  return address;
}

std::optional<std::vector<std::byte>> makeLocalSocketAddress(SocketAddressLayout layout,
                                                             std::string_view path) {
  if (path.size() + 1 > kLocalSocketPathCapacity) {
    return std::nullopt;
  }
  auto address = addressHeader(layout, AF_UNIX);
  append(address, std::as_bytes(std::span(path.data(), path.size())));
  return address;
}

}  // namespace ostravel
