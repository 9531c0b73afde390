#pragma once

#include <chrono>
#include <string>

namespace ostravel {

// Appends a moment in UTC without its zone, such as 2026-11-16T05:43:35, the beginning of an
// internet date-time (RFC 3339). For the years 0 to 9999.
void appendCalendarText(std::string& text, std::chrono::sys_seconds moment);

// Appends a number with leading zeros, in at least this many digits.
void appendPadded(std::string& text, unsigned number, unsigned digits);

}  // namespace ostravel
