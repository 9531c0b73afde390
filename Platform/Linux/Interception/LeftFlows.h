#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "Platform/Interface/Log.h"
#include "Platform/Linux/Identity/LeaveReason.h"

namespace ostravel::linuxplatform {

// Counts the flows that are left to the system and logs them: soon after the first one, then at
// most once a minute per reason. Not thread-safe.
class LeftFlows {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  static constexpr std::chrono::seconds kReportInterval{60};

  explicit LeftFlows(std::shared_ptr<platform::Log> log) : log_(std::move(log)) {}

  // user: the flow's user, if known.
  void add(LeaveReason reason, std::optional<uid_t> user);

  // Called periodically; logs the reasons that are due.
  void report(TimePoint now);

  std::uint64_t count(LeaveReason reason) const { return entryOf(reason).count; }

 private:
  struct Entry {
    std::uint64_t count = 0;
    std::uint64_t reported = 0;
    std::optional<uid_t> lastUser;
    std::optional<TimePoint> lastReport;
  };

  const Entry& entryOf(LeaveReason reason) const {
    return entries_[static_cast<std::size_t>(reason)];
  }

  const std::shared_ptr<platform::Log> log_;
  std::array<Entry, kLeaveReasons> entries_;
};

}  // namespace ostravel::linuxplatform
