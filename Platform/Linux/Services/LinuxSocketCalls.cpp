#include "Platform/Linux/Services/LinuxSocketCalls.h"

#include <sys/socket.h>

#include <cstdint>

namespace ostravel::linuxplatform {

platform::SocketCallResult LinuxSocketCalls::socket(int family, int type, int protocol) {
  const auto result = POSIXSocketCalls::socket(family, type, protocol);
  if (result.value >= 0 && (family == AF_INET || family == AF_INET6)) {
    const std::uint32_t mark = marks_.own();
    ::setsockopt(static_cast<int>(result.value), SOL_SOCKET, SO_MARK, &mark, sizeof mark);
  }
  return result;
}

}  // namespace ostravel::linuxplatform
