#pragma once

#include <chrono>
#include <string>

namespace ostravel::companion {

// The local time of day as HH:MM:SS.mmm, the fraction cut and not rounded.
std::string timeOfDay(std::chrono::system_clock::time_point time);

// The same for seconds since 1970; "--:--:--.---" for a time outside the calendar.
std::string timeOfDay(double secondsSince1970);

}  // namespace ostravel::companion
