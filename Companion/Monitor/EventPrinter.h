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

// Formats the monitor's output: the events that pass the filter, as readable lines or as JSON,
// preceded by the machine if it is another one. Readable output also has lines for the proxy's
// outages, independent of the filter. Owned by main; used on its event loop.
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

  // Ends outages whose quiet time is over. Called once a second.
  void tick(double now);

  // Sums up the flows that pass the filter.
  const EventSummary& summary() const { return summary_; }

  // A sentence for each of the proxy's latest outages. Safe to print.
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
