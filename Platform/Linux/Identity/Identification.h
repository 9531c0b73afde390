#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "Platform/Linux/Identity/LeaveReason.h"
#include "Platform/Linux/Processes/ProcessLife.h"

namespace ostravel::linuxplatform {

// Whose flow it is.
struct Identification {
  // Printable ASCII without surrounding spaces; empty when the application is not known for
  // certain.
  std::string identifier;
  // Present when the flow must be left to the system; the identifier says nothing then.
  std::optional<LeaveReason> leaveReason;
  // It is not known which process dials out for the local proxy, and it may be this one. Such a
  // flow to where a flow of another process is just being proxied is likely to be the proxy's.
  bool mayBelongToProxy = false;
  // The owner of the socket; absent when there is no such socket.
  std::optional<uid_t> user;
  // Absent when it cannot be found.
  std::optional<pid_t> process;
  // The local proxy that such a flow would be sent to; absent while there is none.
  std::optional<ProcessLife> proxy;
};

}  // namespace ostravel::linuxplatform
