#pragma once

#include <string>

#include "Companion/Monitor/ReceivedEvent.h"

namespace ostravel::companion {

enum class Colour { none, terminal };

// One line for a person, without its line feed:
//
//   05:43:35.120 error proxy_unreachable          org.example.browser        No answer proxy=...
//
// The columns stay aligned unless a value is longer than its column. Safe to print.
std::string eventLine(const ReceivedEvent& event, Colour colour);

}  // namespace ostravel::companion
