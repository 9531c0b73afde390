#pragma once

#include "Platform/Linux/Kernel/PacketMarks.h"
#include "Platform/Shared/POSIXSocketCalls.h"

namespace ostravel::linuxplatform {

// The real calls; Internet sockets are marked as our own, so that their packets are never
// intercepted. If we may not set marks, there is no interception either, and the call succeeds
// without one.
class LinuxSocketCalls final : public platform::POSIXSocketCalls {
 public:
  explicit LinuxSocketCalls(const PacketMarks& marks = {}) : marks_(marks) {}

  platform::SocketCallResult socket(int family, int type, int protocol) override;

 private:
  const PacketMarks marks_;
};

}  // namespace ostravel::linuxplatform
