#include "Companion/Shared/InheritedListener.h"

#include <sys/socket.h>
#include <systemd/sd-daemon.h>

#include <asio/ip/tcp.hpp>
#include <cstdint>

namespace ostravel::companion {

std::optional<InheritedListener> inheritedListener() {
  constexpr int kUnsetEnvironment = 1;
  const int count = ::sd_listen_fds(kUnsetEnvironment);
  for (int descriptor = SD_LISTEN_FDS_START; descriptor < SD_LISTEN_FDS_START + count;
       ++descriptor) {
    constexpr int kIsListening = 1;
    constexpr std::uint16_t kAnyPort = 0;
    if (::sd_is_socket_inet(descriptor, AF_UNSPEC, SOCK_STREAM, kIsListening, kAnyPort) <= 0) {
      continue;
    }
    asio::ip::tcp::endpoint address;
    auto size = static_cast<socklen_t>(address.capacity());
    if (::getsockname(descriptor, address.data(), &size) == 0) {
      address.resize(size);
      return InheritedListener{descriptor, {address.address().to_string(), address.port()}};
    }
  }
  return std::nullopt;
}

}  // namespace ostravel::companion
