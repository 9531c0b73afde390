#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "Platform/Interface/Log.h"

namespace ostravel::linuxplatform {

// Why a flow was left to the system without having been offered.
enum class LeaveReason : std::uint8_t {
  // The process is near its limit of descriptors.
  descriptors,
  // The user has its share of the pending handshakes, or of the descriptors.
  handshakeShare,
  descriptorShare,
  // A handshake of the user has timed out, and another one is finding out whether the proxy
  // answers.
  onTrial,
  // A relay could not carry it: a packet of the kernel's own, a socket that is bound to an
  // interface,
  // a family of addresses for which there is no listener.
  kernelSocket,
  boundSocket,
  noListener,
  // Released connections do not arrive.
  redirectPath,
  // It is not known, or not believed, who the local proxy is, or the flow may be the proxy's own.
  proxyUnknown,
  mayBeProxys,
  // The socket could not be looked up, or looking for processes has taken too much time.
  lookUp,
  searchBudget,
};
inline constexpr std::size_t kLeaveReasons =
    static_cast<std::size_t>(LeaveReason::searchBudget) + 1;

std::string_view nameOf(LeaveReason reason);

// Counts the flows that are left to the system and says so in the log, soon after the first one and
// at most once a minute for each reason after that. Used by the verdict thread only.
class LeftFlows {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  static constexpr std::chrono::seconds kReportInterval{60};

  explicit LeftFlows(std::shared_ptr<platform::Log> log) : log_(std::move(log)) {}

  // user: the one whose flow it was, if that is known.
  void add(LeaveReason reason, std::optional<uid_t> user);

  // Called every now and then; logs what is due.
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
