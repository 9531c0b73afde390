#pragma once

#include "Platform/Linux/Kernel/PacketMarks.h"
#include "Platform/Shared/PosixSocketCalls.h"

namespace ostravel::linuxplatform {

// The real calls; sockets of the Internet families are marked as our own, so that what is sent on
// them is never intercepted. Without the permission to mark there is no interception either, and
// the call succeeds all the same.
class LinuxSocketCalls final : public platform::PosixSocketCalls {
 public:
  explicit LinuxSocketCalls(const PacketMarks& marks = {}) : marks_(marks) {}

  platform::SocketCallResult socket(int family, int type, int protocol) override;

 private:
  const PacketMarks marks_;
};

}  // namespace ostravel::linuxplatform
