#include "Companion/Monitor/EventPrinter.h"

#include <algorithm>
#include <utility>

namespace ostravel::companion {

EventPrinter::EventPrinter(Options options, std::function<void(std::string_view line)> writeLine)
    : options_(std::move(options)),
      writeLine_(std::move(writeLine)),
      outages_([this](const Outage& outage) { printOutage(outage); }) {}

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
  now_ = event.timestamp;
  if (event.signal == "proxy_unreachable" || event.signal == "proxy_recovered") {
    outages_.setReachable(event.host, event.signal == "proxy_recovered", event.timestamp);
  } else if (flow != nullptr) {
    outages_.add(*flow);
  }
}

void EventPrinter::tick(double now) {
  now_ = now;
  outages_.tick(now);
}

std::vector<std::string> EventPrinter::outages() const {
  constexpr std::size_t kMost = 10;
  const TimeStyle time = options_.style().time;
  std::vector<std::string> lines;
  for (const Outage* const outage : outages_.outages(kMost)) {
    lines.push_back((outage->host.empty() ? "" : outage->host + ": ") + outageLine(*outage, time));
  }
  return lines;
}

void EventPrinter::printOutage(const Outage& outage) {
  // An event has reported it already, and no more is known yet.
  const bool isKnown = !outage.end && outage.wasUnreachable;
  if (options_.asJSON || isKnown) {
    return;
  }
  writeLine_(onMachine(outage.host, [this, &outage](const EventLineStyle& style) {
    return outageLine(outage, now_, style);
  }));
}

std::string EventPrinter::line(const ReceivedEvent& event, const FlowRecord* flow) const {
  return onMachine(event.host, [&event, flow](const EventLineStyle& style) {
    return eventLine(event, flow, style);
  });
}

// A line, with the machine in front if it is another one.
std::string EventPrinter::onMachine(
    const std::string& host, const std::function<std::string(const EventLineStyle&)>& line) const {
  EventLineStyle style = options_.style();
  if (host.empty()) {
    return line(style);
  }
  std::string column = host;
  // Wide enough for usual names. Plain names occupy one column per byte.
  constexpr std::size_t kHostWidth = 16;
  column.resize(std::max(column.size(), kHostWidth), ' ');
  column += ' ';
  // Never reduced to 0, which means any width.
  style.width = style.width == 0 ? 0 : std::max(style.width, column.size() + 1) - column.size();
  return column + line(style);
}

}  // namespace ostravel::companion
