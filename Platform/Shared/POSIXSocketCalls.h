#pragma once

#include "Platform/Interface/SocketCalls.h"

namespace ostravel::platform {

// The real calls, one to one: nothing is retried, also not after EINTR, and SIGPIPE is left to the
// process's disposition. Has no state, so it is usable from any thread. A platform derives from it
// to mark the sockets as its own.
class POSIXSocketCalls : public SocketCalls {
 public:
  SocketAddressLayout addressLayout() const override;

  // The descriptor is not inherited by programs that this process starts.
  SocketCallResult socket(int family, int type, int protocol) override;
  SocketCallResult statusFlags(int descriptor) override;
  SocketCallResult setStatusFlags(int descriptor, int flags) override;
  SocketCallResult connect(int descriptor, std::span<const std::byte> address) override;
  SocketCallResult pollWritable(int descriptor, std::chrono::milliseconds timeout) override;
  SocketCallResult pendingError(int descriptor) override;
  SocketCallResult write(int descriptor, std::span<const std::byte> bytes) override;
  void close(int descriptor) override;
};

}  // namespace ostravel::platform
