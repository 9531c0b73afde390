#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "Platform/Linux/Identity/LeaveReason.h"
#include "Platform/Linux/Identity/ProxyInstance.h"

namespace ostravel::linuxplatform {

// The sender of a flow, and whether it may be offered.
struct Identification {
  // Printable ASCII without surrounding spaces; empty unless the application is known for certain.
  std::string identifier;
  // Present if the flow must be left to the system; the identifier has no meaning then.
  std::optional<LeaveReason> leaveReason;
  // The process that dials out for the local proxy is unknown and may be this one. If a flow of
  // another process to the same destination is being proxied, this flow is probably the proxy's.
  bool mayBelongToProxy = false;
  // The owner of the socket; empty if there is no such socket.
  std::optional<uid_t> user;
  // Empty if the process was not found.
  std::optional<pid_t> process;
  // The local proxy that would carry the flow; empty if the flow must be left to the system.
  std::optional<ProxyInstance> proxy;
};

}  // namespace ostravel::linuxplatform
