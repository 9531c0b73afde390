#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Interface/Error.h"

namespace ostravel {

// Composes the log line that explains lost monitoring events: the path, the reason, and the number
// since the previous line. The line for each event contains only a code. Owned by the delivery of
// the events and used on its queue.
class MonitoringLossReport {
 public:
  // Between two lines: they only explain the failures, each of which is logged.
  static constexpr double kSecondsBetweenLines = 60.0;

  // An event could not be delivered. Returns the line to write now, if one is due.
  std::optional<std::string> lost(std::string_view path, const platform::Error& error,
                                  double secondsSince1970);

  // An event was delivered. Returns a line if some were lost since the last one and one is due.
  std::optional<std::string> delivered(std::string_view path, double secondsSince1970);

 private:
  std::optional<std::string> lineIfDue(std::string_view path, std::string_view reason,
                                       double secondsSince1970);

  std::uint64_t lostSinceLine_ = 0;
  double lastLine_ = -std::numeric_limits<double>::infinity();
};

}  // namespace ostravel
