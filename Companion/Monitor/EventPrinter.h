#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "Companion/Events/FlowHistory.h"
#include "Companion/Events/ReceivedEvent.h"
#include "Companion/Monitor/EventFilter.h"
#include "Companion/Monitor/EventLine.h"
#include "Companion/Monitor/EventSummary.h"

namespace ostravel::companion {

// Turns events into the lines of the monitor's output: those that the filter lets through, for
// people or as JSON, with the machine in front if the event is of another one. Owned by main; used
// on its event loop.
class EventPrinter {
 public:
  struct Options {
    bool asJSON = false;
    EventFilter filter = {};
    // Asked for each line, because a terminal can be resized.
    std::function<EventLineStyle()> style = [] { return EventLineStyle(); };
  };

  EventPrinter(Options options, std::function<void(std::string_view line)> writeLine);

  void print(const ReceivedEvent& event);

  // Of the flows that the filter lets through.
  const EventSummary& summary() const { return summary_; }

 private:
  std::string line(const ReceivedEvent& event, const FlowRecord* flow) const;

  Options options_;
  std::function<void(std::string_view line)> writeLine_;
  FlowHistory flows_;
  EventSummary summary_;
};

}  // namespace ostravel::companion
