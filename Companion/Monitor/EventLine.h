#pragma once

#include <cstddef>
#include <string>

#include "Companion/Events/FlowHistory.h"
#include "Companion/Events/ReceivedEvent.h"
#include "Companion/Shared/TimeText.h"

namespace ostravel::companion {

enum class Colour { none, terminal };

struct EventLineStyle {
  Colour colour = Colour::none;
  TimeStyle time = TimeStyle::timeOfDay;
  // Of the terminal, in columns: a line is fitted into it. 0: as long as it is.
  std::size_t width = 0;
};

// One line for a person, without its line feed:
//
//   05:43:35.123 info  D7A6D6B1 connecting          /usr/bin/curl              192.0.2.1:443
//   05:43:38.223 error D7A6D6B1 refused 3.1 s       /usr/bin/curl              192.0.2.1:443 HTTP/…
//
// What has happened and how long it took, counted from the flow's beginning; for whom, and where
// to; the reason at the end, so that a narrow screen cuts it off first. `flow` is the event's flow,
// this event included, and null for an event of the provider. The columns stay aligned unless a
// value is longer than its column; within a width, it is cut. Safe to print.
std::string eventLine(const ReceivedEvent& event, const FlowRecord* flow,
                      const EventLineStyle& style);

}  // namespace ostravel::companion
