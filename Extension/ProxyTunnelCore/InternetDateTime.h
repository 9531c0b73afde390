#pragma once

#include <string>

namespace ostravel {

// A time as an internet date-time (RFC 3339): UTC, whole seconds, "Z" suffix, such as
// 2026-11-16T05:43:35Z. Fractions of a second are truncated.
std::string internetDateTime(double secondsSince1970);

}  // namespace ostravel
