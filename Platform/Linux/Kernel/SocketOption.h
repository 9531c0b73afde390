#pragma once

#include <sys/socket.h>

#include <cerrno>
#include <optional>
#include <type_traits>

namespace ostravel::linuxplatform {

// The value of a socket option (getsockopt(2)); empty with errno if the kernel does not say, and
// with EPROTO if it says less than the whole value. What it leaves out must not be taken for zeros:
// user 0 is root, and error 0 is success.
template <typename Value>
std::optional<Value> socketOption(int descriptor, int level, int option) {
  static_assert(std::is_trivially_copyable_v<Value>);
  Value value{};
  socklen_t size = sizeof value;
  if (::getsockopt(descriptor, level, option, &value, &size) != 0) {
    return std::nullopt;
  }
  if (size != sizeof value) {
    errno = EPROTO;
    return std::nullopt;
  }
  return value;
}

}  // namespace ostravel::linuxplatform
