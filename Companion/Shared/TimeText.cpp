#include "Companion/Shared/TimeText.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace ostravel::companion {
namespace {

constexpr const char* kNoTime = "--:--:--.---";
constexpr const char* kNoDate = "----------T";

// About 290,000 years. Milliseconds beyond this do not fit into the clock's 64 bits.
constexpr double kFarthestSeconds = 9.0e12;

std::string textOfMilliseconds(long long milliseconds, TimeStyle style) {
  // Floored, so that a time before 1970 keeps a fraction that counts forward.
  long long seconds = milliseconds / 1000;
  long long fraction = milliseconds % 1000;
  if (fraction < 0) {
    fraction += 1000;
    --seconds;
  }
  const std::time_t time = static_cast<std::time_t>(seconds);
  std::tm fields{};
  const std::tm* const known =
      style == TimeStyle::utc ? ::gmtime_r(&time, &fields) : ::localtime_r(&time, &fields);
  if (known == nullptr) {
    return style == TimeStyle::timeOfDay ? kNoTime : std::string(kNoDate) + kNoTime;
  }
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%02d:%02d:%02d.%03lld", fields.tm_hour, fields.tm_min,
                fields.tm_sec, fraction);
  const std::string timeOfDay = text.data();
  if (style == TimeStyle::timeOfDay) {
    return timeOfDay;
  }
  std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT", fields.tm_year + 1900,
                fields.tm_mon + 1, fields.tm_mday);
  const std::string whole = text.data() + timeOfDay;
  if (style == TimeStyle::utc) {
    return whole + "Z";
  }
  const long minutes = fields.tm_gmtoff / 60;
  std::snprintf(text.data(), text.size(), "%c%02ld:%02ld", minutes < 0 ? '-' : '+',
                std::labs(minutes) / 60, std::labs(minutes) % 60);
  return whole + text.data();
}

// Three significant digits.
std::string threeDigits(double number, const char* unit) {
  const int decimals = number < 9.995 ? 2 : number < 99.95 ? 1 : 0;
  std::array<char, 48> text{};
  std::snprintf(text.data(), text.size(), "%.*f %s", decimals, number, unit);
  return text.data();
}

}  // namespace

std::string timeOfDay(std::chrono::system_clock::time_point time) {
  return timeText(time, TimeStyle::timeOfDay);
}

std::string timeOfDay(double secondsSince1970) {
  return timeText(secondsSince1970, TimeStyle::timeOfDay);
}

std::optional<TimeStyle> timeStyleNamed(std::string_view name) {
  if (name == "time") {
    return TimeStyle::timeOfDay;
  }
  if (name == "local") {
    return TimeStyle::local;
  }
  return name == "utc" ? std::optional(TimeStyle::utc) : std::nullopt;
}

std::string timeText(double secondsSince1970, TimeStyle style) {
  if (!(std::fabs(secondsSince1970) < kFarthestSeconds)) {
    return style == TimeStyle::timeOfDay ? kNoTime : std::string(kNoDate) + kNoTime;
  }
  // A decimal fraction such as .123 has no exact double, and the nearest one may be slightly
  // smaller. A microsecond, far less than the precision of a sender's clock, corrects that.
  constexpr double kMicrosecondInMilliseconds = 1e-3;
  const double milliseconds = std::floor(secondsSince1970 * 1000.0 + kMicrosecondInMilliseconds);
  return textOfMilliseconds(static_cast<long long>(milliseconds), style);
}

std::string timeText(std::chrono::system_clock::time_point time, TimeStyle style) {
  const auto sinceEpoch = std::chrono::floor<std::chrono::milliseconds>(time).time_since_epoch();
  return textOfMilliseconds(sinceEpoch.count(), style);
}

std::string durationText(double seconds) {
  // If a clock was set between two events, the difference can be anything.
  if (!(seconds >= 0.0 && seconds < kFarthestSeconds)) {
    return "?";
  }
  constexpr double kMinute = 60.0;
  constexpr double kHour = 3600.0;
  if (seconds < 0.9995) {
    return threeDigits(seconds * 1000.0, "ms");
  }
  if (seconds < 2.0 * kMinute) {
    return threeDigits(seconds, "s");
  }
  return seconds < 2.0 * kHour ? threeDigits(seconds / kMinute, "min")
                               : threeDigits(seconds / kHour, "h");
}

}  // namespace ostravel::companion
