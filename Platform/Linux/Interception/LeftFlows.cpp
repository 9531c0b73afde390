#include "Platform/Linux/Interception/LeftFlows.h"

#include <string>

namespace ostravel::linuxplatform {

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
