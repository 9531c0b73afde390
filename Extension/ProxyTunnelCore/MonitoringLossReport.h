#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Interface/Error.h"

namespace ostravel {

// Words the line that explains lost monitoring events to the person who reads the log: which
// path, why, and how many since the line before. The line for each event gives only a code. Owned
// by the delivery of the events and used on its queue.
class MonitoringLossReport {
 public:
  // Between two lines. They explain; the failures themselves are all in the log.
  static constexpr double kSecondsBetweenLines = 60.0;

  // An event could not be delivered. The line to write now, if it is time for one.
  std::optional<std::string> lost(std::string_view path, const platform::Error& error,
                                  double secondsSince1970);

  // An event was delivered. A line if some were lost since the last one and it is time for one.
  std::optional<std::string> delivered(std::string_view path, double secondsSince1970);

 private:
  std::optional<std::string> lineIfDue(std::string_view path, std::string_view reason,
                                       double secondsSince1970);

  std::uint64_t lostSinceLine_ = 0;
  double lastLine_ = -std::numeric_limits<double>::infinity();
};

}  // namespace ostravel
