#include "Platform/Linux/LeftFlows.h"

#include <string>

namespace ostravel::linuxplatform {

std::string_view nameOf(LeaveReason reason) {
  switch (reason) {
    case LeaveReason::descriptors:
      return "descriptors";
    case LeaveReason::handshakeShare:
      return "handshake_share";
    case LeaveReason::descriptorShare:
      return "descriptor_share";
    case LeaveReason::onTrial:
      return "on_trial";
    case LeaveReason::kernelSocket:
      return "kernel_socket";
    case LeaveReason::boundSocket:
      return "bound_socket";
    case LeaveReason::noListener:
      return "no_listener";
    case LeaveReason::redirectPath:
      return "redirect_path";
    case LeaveReason::proxyUnknown:
      return "proxy_unknown";
    case LeaveReason::mayBeProxys:
      return "may_be_proxys";
    case LeaveReason::lookUp:
      return "look_up";
    case LeaveReason::searchBudget:
      return "search_budget";
  }
  return "unknown";
}

void LeftFlows::add(LeaveReason reason, std::optional<uid_t> user) {
  Entry& entry = entries_[static_cast<std::size_t>(reason)];
  ++entry.count;
  entry.lastUser = user;
}

void LeftFlows::report(TimePoint now) {
  for (std::size_t index = 0; index < kLeaveReasons; ++index) {
    Entry& entry = entries_[index];
    const bool isDue = !entry.lastReport || now - *entry.lastReport >= kReportInterval;
    if (entry.count == entry.reported || !isDue) {
      continue;
    }
    const std::string user = entry.lastUser ? std::to_string(*entry.lastUser) : "unknown";
    log_->info(
        "OstravelProxy: Flows left to the system reason=%{public}s count=%{public}d "
        "last_user=%{public}s",
        {nameOf(static_cast<LeaveReason>(index)),
         static_cast<std::int64_t>(entry.count - entry.reported), user});
    entry.reported = entry.count;
    entry.lastReport = now;
  }
}

}  // namespace ostravel::linuxplatform
