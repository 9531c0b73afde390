#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "Companion/Events/FlowHistory.h"
#include "Companion/Events/OutageLog.h"
#include "Companion/Events/ReceivedEvent.h"
#include "Companion/Monitor/EventFilter.h"
#include "Companion/Monitor/EventLine.h"
#include "Companion/Monitor/EventSummary.h"

namespace ostravel::companion {

// Turns events into the lines of the monitor's output: those that the filter lets through, for
// people or as JSON, with the machine in front if the event is of another one. For people, the
// outages of the proxy have lines as well, whichever flows the filter lets through. Owned by main;
// used on its event loop.
class EventPrinter {
 public:
  struct Options {
    bool asJSON = false;
    EventFilter filter = {};
    // Called for each line, because a terminal can be resized.
    std::function<EventLineStyle()> style = [] { return EventLineStyle(); };
  };

  EventPrinter(Options options, std::function<void(std::string_view line)> writeLine);

  void print(const ReceivedEvent& event);

  // Time has passed, which ends outages. Called once a second.
  void tick(double now);

  // Of the flows that the filter lets through.
  const EventSummary& summary() const { return summary_; }

  // A sentence for each outage of the proxy, of the last ones. Safe to print.
  std::vector<std::string> outages() const;

 private:
  std::string line(const ReceivedEvent& event, const FlowRecord* flow) const;
  void printOutage(const Outage& outage);
  std::string onMachine(const std::string& host,
                        const std::function<std::string(const EventLineStyle&)>& line) const;

  Options options_;
  std::function<void(std::string_view line)> writeLine_;
  FlowHistory flows_;
  OutageLog outages_;
  double now_ = 0;
  EventSummary summary_;
};

}  // namespace ostravel::companion
