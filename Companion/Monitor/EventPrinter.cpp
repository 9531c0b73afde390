#include "Companion/Monitor/EventPrinter.h"

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
    writeLine_(options_.asJSON ? event.json : eventLine(event, flow, options_.style()));
  }
}

}  // namespace ostravel::companion
