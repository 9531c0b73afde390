#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ostravel::linuxplatform {

// Why a flow is left to the system instead of being offered.
enum class LeaveReason : std::uint8_t {
  // It is offered.
  none,
  // A relay cannot carry it as the application means it: its socket is bound to an interface.
  notCarried,
  // It cannot be excluded that it is the local proxy's own, which must never be sent to the proxy
  // again.
  proxyUnknown,
  // Its process would have to be searched for, and enough time has gone into such searches.
  searchBudget,
  // The kernel does not tell which socket it comes from.
  diagnosticsFailed,
};

// For logs and counters.
std::string_view nameOf(LeaveReason reason);

// Whose flow it is.
struct Identification {
  // Printable ASCII without surrounding spaces; empty when the application is not known for
  // certain.
  std::string identifier;
  // The identifier says nothing then.
  bool leaveToSystem = false;
  LeaveReason leaveReason = LeaveReason::none;
  // The owner of the socket; absent when there is no such socket.
  std::optional<uid_t> user;
  // Absent when it cannot be found.
  std::optional<pid_t> process;
};

}  // namespace ostravel::linuxplatform
