#pragma once

#include <chrono>
#include <cstddef>
#include <span>

namespace ostravel::platform {

// The byte layout of a socket address in this system's calls.
enum class SocketAddressLayout {
  // A two-byte family in host byte order.
  linuxABI,
  // A length byte, which may be zero, and a one-byte family.
  darwinABI,
};

// The outcome of one call: its result, and errno if the result is negative; for a write also if it
// is 0, which is a failure as well.
struct SocketCallResult {
  long value = 0;
  int error = 0;
};

// The few blocking socket calls that the core makes, one to one, so that tests can script them and
// a platform can mark the sockets as its own. Usable from any thread.
class SocketCalls {
 public:
  SocketCalls() = default;
  SocketCalls(const SocketCalls&) = delete;
  SocketCalls& operator=(const SocketCalls&) = delete;
  virtual ~SocketCalls() = default;

  virtual SocketAddressLayout addressLayout() const = 0;

  virtual SocketCallResult socket(int family, int type, int protocol) = 0;
  virtual SocketCallResult statusFlags(int descriptor) = 0;
  virtual SocketCallResult setStatusFlags(int descriptor, int flags) = 0;
  virtual SocketCallResult connect(int descriptor, std::span<const std::byte> address) = 0;
  // Waits until the descriptor is writable; the value is poll's: 1 ready, 0 timed out.
  virtual SocketCallResult pollWritable(int descriptor, std::chrono::milliseconds timeout) = 0;
  // The value is the pending error (SO_ERROR), 0 for none.
  virtual SocketCallResult pendingError(int descriptor) = 0;
  virtual SocketCallResult write(int descriptor, std::span<const std::byte> bytes) = 0;
  virtual void close(int descriptor) = 0;
};

}  // namespace ostravel::platform
