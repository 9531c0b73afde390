#include "Platform/Linux/LinuxSocketCalls.h"

#include <sys/socket.h>

#include "Platform/Linux/PacketMarks.h"

namespace ostravel::linuxplatform {

platform::SocketCallResult LinuxSocketCalls::socket(int family, int type, int protocol) {
  const auto result = PosixSocketCalls::socket(family, type, protocol);
  if (result.value >= 0 && (family == AF_INET || family == AF_INET6)) {
    ::setsockopt(static_cast<int>(result.value), SOL_SOCKET, SO_MARK, &kOwnMark, sizeof kOwnMark);
  }
  return result;
}

}  // namespace ostravel::linuxplatform
