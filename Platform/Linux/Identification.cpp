#include "Platform/Linux/Identification.h"

namespace ostravel::linuxplatform {

std::string_view nameOf(LeaveReason reason) {
  switch (reason) {
    case LeaveReason::none:
      return "none";
    case LeaveReason::notCarried:
      return "bound to an interface";
    case LeaveReason::proxyUnknown:
      return "may be the local proxy's own";
    case LeaveReason::searchBudget:
      return "process searches are used up";
    case LeaveReason::diagnosticsFailed:
      return "socket diagnostics failed";
  }
  return "unknown";
}

}  // namespace ostravel::linuxplatform
