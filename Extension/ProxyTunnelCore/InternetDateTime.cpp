#include "Extension/ProxyTunnelCore/InternetDateTime.h"

#include <chrono>
#include <cmath>
#include <cstdint>

#include "Base/CalendarText.h"

namespace ostravel {

std::string internetDateTime(double secondsSince1970) {
  // Year 9999 is the last one that the format can write; not-a-number becomes the epoch.
  constexpr double kLatest = 253402300799.0;
  const double whole = std::floor(secondsSince1970);
  const double bounded = whole >= 0.0 ? std::fmin(whole, kLatest) : 0.0;
  const std::chrono::sys_seconds moment{std::chrono::seconds{static_cast<std::int64_t>(bounded)}};
  std::string text;
  appendCalendarText(text, moment);
  text += 'Z';
  return text;
}

}  // namespace ostravel
