#pragma once

#include <cstddef>
#include <string>

#include "Companion/Events/FlowHistory.h"
#include "Companion/Events/OutageLog.h"
#include "Companion/Events/ReceivedEvent.h"
#include "Companion/Shared/TimeText.h"

namespace ostravel::companion {

enum class Colour { none, terminal };

struct EventLineStyle {
  Colour colour = Colour::none;
  TimeStyle time = TimeStyle::timeOfDay;
  // The terminal's width in columns, to which lines are fitted; 0 for no limit.
  std::size_t width = 0;
};

// One readable line, without its line feed:
//
//   05:43:35.123 info  D7A6D6B1 connecting          /usr/bin/curl              192.0.2.1:443
//   05:43:38.223 error D7A6D6B1 refused 3.1 s       /usr/bin/curl              192.0.2.1:443 HTTP/…
//
// What happened and the time since the flow's beginning; the application and the destination; the
// reason last, so that a narrow screen truncates it first. `flow` is the event's flow, including
// this event; null for an event of the provider. The columns stay aligned unless a value is longer
// than its column; if there is a width, such a value is truncated. Safe to print.
std::string eventLine(const ReceivedEvent& event, const FlowRecord* flow,
                      const EventLineStyle& style);

// The same for an outage of the proxy that has just begun or ended: one or more sentences, which
// are not truncated.
//
//   14:03:10.112 error The proxy hangs, since 14:03:05.112: new connections go direct.
std::string outageLine(const Outage& outage, double now, const EventLineStyle& style);

}  // namespace ostravel::companion
