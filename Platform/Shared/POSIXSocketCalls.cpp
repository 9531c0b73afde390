#include "Platform/Shared/POSIXSocketCalls.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

namespace ostravel::platform {

namespace {

SocketCallResult outcome(long value) {
  return {value, value < 0 ? errno : 0};
}

}  // namespace

SocketAddressLayout POSIXSocketCalls::addressLayout() const {
#if defined(__APPLE__)
  return SocketAddressLayout::darwinABI;
#else
  return SocketAddressLayout::linuxABI;
#endif
}

SocketCallResult POSIXSocketCalls::socket(int family, int type, int protocol) {
#if defined(__APPLE__)
  const int descriptor = ::socket(family, type, protocol);
  const auto result = outcome(descriptor);
  if (descriptor >= 0) {
    ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  }
  return result;
#else
  return outcome(::socket(family, type | SOCK_CLOEXEC, protocol));
#endif
}

SocketCallResult POSIXSocketCalls::statusFlags(int descriptor) {
  return outcome(::fcntl(descriptor, F_GETFL));
}

SocketCallResult POSIXSocketCalls::setStatusFlags(int descriptor, int flags) {
  return outcome(::fcntl(descriptor, F_SETFL, flags));
}

SocketCallResult POSIXSocketCalls::connect(int descriptor, std::span<const std::byte> address) {
  sockaddr_storage storage{};
  if (address.size() > sizeof storage) {
    return {-1, EINVAL};
  }
  // Copied, because the bytes may not be aligned as the type requires.
  std::memcpy(&storage, address.data(), address.size());
  return outcome(::connect(descriptor, reinterpret_cast<const sockaddr*>(&storage),
                           static_cast<socklen_t>(address.size())));
}

SocketCallResult POSIXSocketCalls::pollWritable(int descriptor, std::chrono::milliseconds timeout) {
  // poll takes an int, and a negative one waits forever.
  constexpr std::chrono::milliseconds::rep kLongest = std::numeric_limits<int>::max();
  const auto wait = std::clamp<std::chrono::milliseconds::rep>(timeout.count(), 0, kLongest);
  pollfd entry{.fd = descriptor, .events = POLLOUT, .revents = 0};
  return outcome(::poll(&entry, 1, static_cast<int>(wait)));
}

SocketCallResult POSIXSocketCalls::pendingError(int descriptor) {
  int error = 0;
  socklen_t size = sizeof error;
  const int result = ::getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size);
  return result < 0 ? outcome(result) : SocketCallResult{error, 0};
}

SocketCallResult POSIXSocketCalls::write(int descriptor, std::span<const std::byte> bytes) {
  const long written = ::write(descriptor, bytes.data(), bytes.size());
  return {written, written <= 0 ? errno : 0};
}

void POSIXSocketCalls::close(int descriptor) {
  ::close(descriptor);
}

}  // namespace ostravel::platform
