#include "Companion/Shared/TimeText.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace ostravel::companion {
namespace {

constexpr const char* kNoTime = "--:--:--.---";

// Beyond this the milliseconds of a clock no longer fit its 64 bits; it is some 290,000 years.
constexpr double kFarthestSeconds = 9.0e12;

std::string timeOfDayFromMilliseconds(long long milliseconds) {
  // Floored, so that a time before 1970 keeps a fraction that counts forward.
  long long seconds = milliseconds / 1000;
  long long fraction = milliseconds % 1000;
  if (fraction < 0) {
    fraction += 1000;
    --seconds;
  }
  const std::time_t time = static_cast<std::time_t>(seconds);
  std::tm local{};
  if (::localtime_r(&time, &local) == nullptr) {
    return kNoTime;
  }
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%02d:%02d:%02d.%03lld", local.tm_hour, local.tm_min,
                local.tm_sec, fraction);
  return text.data();
}

}  // namespace

std::string timeOfDay(std::chrono::system_clock::time_point time) {
  const auto sinceEpoch = std::chrono::floor<std::chrono::milliseconds>(time).time_since_epoch();
  return timeOfDayFromMilliseconds(sinceEpoch.count());
}

std::string timeOfDay(double secondsSince1970) {
  if (!(std::fabs(secondsSince1970) < kFarthestSeconds)) {
    return kNoTime;
  }
  // A decimal fraction such as .123 has no exact double, and the nearest one may be just below it.
  // A microsecond, far less than the precision of a sender's clock, corrects that.
  constexpr double kMicrosecondInMilliseconds = 1e-3;
  const double milliseconds = std::floor(secondsSince1970 * 1000.0 + kMicrosecondInMilliseconds);
  return timeOfDayFromMilliseconds(static_cast<long long>(milliseconds));
}

}  // namespace ostravel::companion
