#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace ostravel::companion {

// The local time of day as HH:MM:SS.mmm, truncated.
std::string timeOfDay(std::chrono::system_clock::time_point time);

// The same for seconds since 1970; "--:--:--.---" for a time outside the calendar.
std::string timeOfDay(double secondsSince1970);

// How the programs print times.
enum class TimeStyle {
  timeOfDay,  // 05:43:35.123, local
  local,      // 2025-11-16T05:43:35.123+01:00, local with the offset of its zone (RFC 3339)
  utc,        // 2025-11-16T04:43:35.123Z, as the extension's log has it
};

// The style with this name, "time", "local" or "utc"; empty for any other.
std::optional<TimeStyle> timeStyleNamed(std::string_view name);

// A time outside the calendar becomes a placeholder of the usual length.
std::string timeText(double secondsSince1970, TimeStyle style);
std::string timeText(std::chrono::system_clock::time_point time, TimeStyle style);

// A duration in three digits: 1.25 ms, 318 ms, 4.07 s, 12.0 min, 3.50 h. "?" for an invalid one.
std::string durationText(double seconds);

}  // namespace ostravel::companion
