#include "Extension/ProxyTunnelCore/InternetDateTime.h"

#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>

namespace ostravel {

std::string internetDateTime(double secondsSince1970) {
  // Year 9999 is the last one that the format can write; not-a-number becomes the epoch.
  constexpr double kLatest = 253402300799.0;
  const double whole = std::floor(secondsSince1970);
  const double bounded = whole >= 0.0 ? std::fmin(whole, kLatest) : 0.0;
  const std::chrono::sys_seconds moment{std::chrono::seconds{static_cast<std::int64_t>(bounded)}};
  const auto midnight = std::chrono::floor<std::chrono::days>(moment);
  const std::chrono::year_month_day date{midnight};
  const std::chrono::hh_mm_ss time{moment - midnight};

  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02dZ", int{date.year()},
                unsigned{date.month()}, unsigned{date.day()},
                static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                static_cast<int>(time.seconds().count()));
  return text.data();
}

}  // namespace ostravel
