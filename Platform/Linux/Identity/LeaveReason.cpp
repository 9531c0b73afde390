#include "Platform/Linux/Identity/LeaveReason.h"

namespace ostravel::linuxplatform {

std::string_view nameOf(LeaveReason reason) {
  switch (reason) {
    case LeaveReason::descriptors:
      return "descriptors";
    case LeaveReason::handshakeShare:
      return "handshake_share";
    case LeaveReason::descriptorShare:
      return "descriptor_share";
    case LeaveReason::offerShare:
      return "offer_share";
    case LeaveReason::onTrial:
      return "on_trial";
    case LeaveReason::kernelSocket:
      return "kernel_socket";
    case LeaveReason::notCarried:
      return "not_carried";
    case LeaveReason::noListener:
      return "no_listener";
    case LeaveReason::redirectPath:
      return "redirect_path";
    case LeaveReason::proxyUnknown:
      return "proxy_unknown";
    case LeaveReason::proxyNotTrusted:
      return "proxy_not_trusted";
    case LeaveReason::mayBelongToProxy:
      return "may_be_proxys";
    case LeaveReason::searchBudget:
      return "search_budget";
    case LeaveReason::diagnosticsFailed:
      return "diagnostics_failed";
  }
  return "unknown";
}

}  // namespace ostravel::linuxplatform
