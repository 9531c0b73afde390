#include "Companion/Monitor/EventPrinter.h"

#include <algorithm>
#include <utility>

namespace ostravel::companion {

EventPrinter::EventPrinter(Options options, std::function<void(std::string_view line)> writeLine)
    : options_(std::move(options)), writeLine_(std::move(writeLine)) {}

void EventPrinter::print(const ReceivedEvent& event) {
  const FlowRecord* const flow = flows_.apply(event);
  EventFilter everyLevel = options_.filter;
  everyLevel.onlyFailures = false;
  if (flow != nullptr && everyLevel.passes(event, flow)) {
    summary_.add(*flow);
  }
  if (options_.filter.passes(event, flow)) {
    writeLine_(options_.asJSON ? event.json : line(event, flow));
  }
}

std::string EventPrinter::line(const ReceivedEvent& event, const FlowRecord* flow) const {
  EventLineStyle style = options_.style();
  if (event.host.empty()) {
    return eventLine(event, flow, style);
  }
  std::string host = event.host;
  // Wide enough for usual names. Plain names occupy one column per byte.
  constexpr std::size_t kHostWidth = 16;
  host.resize(std::max(host.size(), kHostWidth), ' ');
  host += ' ';
  // Never reduced to 0, which means any width.
  style.width = style.width == 0 ? 0 : std::max(style.width, host.size() + 1) - host.size();
  return host + eventLine(event, flow, style);
}

}  // namespace ostravel::companion
