#include "Companion/Monitor/EventLine.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "Base/PrintableText.h"
#include "Companion/Shared/ColumnText.h"

namespace ostravel::companion {
namespace {

constexpr std::size_t kLevelWidth = 5;
constexpr std::size_t kIdWidth = 8;
constexpr std::size_t kWhatWidth = 18;

// Terminals that are narrower show no ids, and still narrower ones show the level by its colour
// alone.
constexpr std::size_t kWidthWithId = 72;
constexpr std::size_t kWidthWithLevel = 56;

// ECMA-48, section 8.3.117.
constexpr std::string_view kRed = "\x1b[31m";
constexpr std::string_view kGreen = "\x1b[32m";
constexpr std::string_view kYellow = "\x1b[33m";
constexpr std::string_view kPlain = "\x1b[0m";

std::string orDash(std::string text) {
  return text.empty() ? "-" : std::move(text);
}

std::string_view colourOf(std::string_view level) {
  if (level == "error") {
    return kRed;
  }
  return level == "info" ? kGreen : kYellow;
}

std::string coloured(std::string column, std::string_view level, Colour colour) {
  if (colour == Colour::terminal) {
    column.insert(0, colourOf(level));
    column += kPlain;
  }
  return column;
}

std::string levelColumn(const std::string& level, Colour colour) {
  // Padded first: the escapes take no room on the screen.
  return " " + coloured(padded(printableText(level), kLevelWidth), level, colour);
}

// " 1.25 ms", or nothing when the beginning of the flow is unknown.
std::string sinceBeginning(const ReceivedEvent& event, const FlowRecord& flow) {
  return flow.startedAt ? " " + durationText(event.timestamp - *flow.startedAt) : "";
}

std::string endOfFlow(const ReceivedEvent& event, const FlowRecord& flow) {
  switch (flow.outcome) {
    case FlowOutcome::closed:
    case FlowOutcome::reset:
      return std::string(outcomeText(flow.outcome)) + sinceBeginning(event, flow);
    case FlowOutcome::failed:
      return event.level == "error" ? "failed" + sinceBeginning(event, flow) : "closed unanswered";
    default:
      // The known outcome is more useful than how the connection to the proxy ended.
      return "ended: " + std::string(outcomeText(flow.outcome));
  }
}

std::string whatHappened(const ReceivedEvent& event, const FlowRecord* flow) {
  if (event.signal == "provider_started") {
    return "started";
  }
  if (event.signal == "provider_stopped") {
    return "stopped";
  }
  if (event.signal == "proxy_unreachable") {
    return "proxy unreachable";
  }
  if (event.signal == "proxy_recovered") {
    return "proxy recovered";
  }
  if (flow == nullptr) {
    return printableText(event.signal);
  }
  if (event.signal == "connect_handshake_started") {
    return "connecting";
  }
  if (event.signal == "connect_handshake_succeeded") {
    return "connected" +
           (flow->handshakeSeconds ? " " + durationText(*flow->handshakeSeconds) : "");
  }
  if (event.signal == "connect_handshake_rejected") {
    return flow->outcome == FlowOutcome::backlog ? "direct: backlog"
                                                 : "refused" + sinceBeginning(event, *flow);
  }
  if (event.signal == "connect_handshake_invalid") {
    return "invalid answer";
  }
  if (event.signal == "connect_handshake_timed_out") {
    return "timed out" + sinceBeginning(event, *flow);
  }
  if (event.signal == "tunnel_closed") {
    return endOfFlow(event, *flow);
  }
  if (event.signal == "connect_handshake_write_failed") {
    return "write failed";
  }
  if (event.signal == "connect_handshake_read_failed") {
    return "read failed";
  }
  return event.signal == "connect_handshake_leftover_write_failed" ? "forwarding failed"
                                                                   : printableText(event.signal);
}

bool isSaidElsewhere(const std::string& key, const ReceivedEvent& event, const FlowRecord* flow) {
  if (flow != nullptr && (key == "remote" || key == "elapsed_ms" || key == "timeout_seconds")) {
    return true;
  }
  if (key == "leftover_bytes" || (key == "detail" && event.level == "info")) {
    return true;
  }
  // The previous line has given the reason.
  return key == "detail" && flow != nullptr && event.signal == "tunnel_closed" &&
         flow->outcome != FlowOutcome::reset && flow->outcome != FlowOutcome::failed;
}

// The reason without its name; the values of other keys with their names.
std::string explanation(const ReceivedEvent& event, const FlowRecord* flow) {
  if (event.signal == "proxy_unreachable") {
    return "new connections go direct";
  }
  if (event.signal == "proxy_recovered") {
    return "new connections are proxied";
  }
  std::string text;
  for (const auto& [key, value] : event.details) {
    if (isSaidElsewhere(key, event, flow)) {
      continue;
    }
    const bool isReason =
        flow != nullptr && (key == "detail" || key == "reason" || key == "status_line");
    text += text.empty() ? "" : " ";
    text += isReason ? printableText(value) : printableText(key) + "=" + printableValue(value);
  }
  return text;
}

// A sentence, unless the columns say the same.
std::string sentence(const ReceivedEvent& event) {
  const bool isKnown = event.signal.starts_with("connect_handshake_") ||
                       event.signal == "tunnel_closed" || event.signal.starts_with("proxy_");
  return isKnown ? "" : printableText(event.message);
}

std::string destinationOf(const ReceivedEvent& event, const FlowRecord* flow) {
  if (flow != nullptr) {
    return orDash(printableText(flow->destination));
  }
  const std::string* proxy = event.detail("proxy");
  return proxy == nullptr ? "-" : printableText(*proxy);
}

std::string applicationOf(const ReceivedEvent& event, const FlowRecord* flow) {
  return orDash(printableText(flow == nullptr ? event.appId : flow->application));
}

struct Columns {
  std::string time;
  std::string id;
  std::string what;
  std::string application;
  std::string destination;
  std::string rest;
};

Columns describe(const ReceivedEvent& event, const FlowRecord* flow, TimeStyle time) {
  Columns columns;
  columns.time = timeText(event.timestamp, time);
  columns.id = flow == nullptr ? "-" : printableText(firstColumns(flow->id, kIdWidth));
  columns.what = whatHappened(event, flow);
  columns.application = applicationOf(event, flow);
  columns.destination = destinationOf(event, flow);
  columns.rest = explanation(event, flow);
  if (const std::string text = sentence(event); !text.empty()) {
    columns.rest += (columns.rest.empty() ? "" : "  ") + text;
  }
  return columns;
}

// The columns of a line, and their widths.
struct Layout {
  bool hasLevel = true;
  bool hasId = true;
  std::size_t application = kApplicationWidth;
  std::size_t room = 0;  // after the level

  std::size_t beforeApplication() const { return (hasId ? 1 + kIdWidth : 0) + 1 + kWhatWidth + 2; }
};

// Without the time and the level, which the caller adds.
std::string afterLevel(const Columns& columns, const Layout& layout) {
  return (layout.hasId ? " " + padded(columns.id, kIdWidth) : "") + " " +
         padded(columns.what, kWhatWidth) + "  " + padded(columns.application, layout.application) +
         " " + padded(columns.destination, kDestinationWidth) + "  " + columns.rest;
}

// The columns for a terminal that is not wide. Application and destination share the room that the
// others leave.
Layout narrowed(Columns& columns, const EventLineStyle& style) {
  Layout layout;
  if (style.time == TimeStyle::timeOfDay) {
    columns.time = std::string(firstColumns(columns.time, kShortTimeWidth));
  }
  const std::size_t time = columnsOf(columns.time);
  const std::size_t longer = time - kShortTimeWidth;
  layout.hasId = style.width >= kWidthWithId + longer;
  layout.hasLevel = style.width >= kWidthWithLevel + longer;
  const std::size_t before = time + (layout.hasLevel ? 1 + kLevelWidth : 0);
  layout.room = style.width > before ? style.width - before : 0;
  const std::size_t fixed = layout.beforeApplication() + 1;
  const std::size_t both = layout.room > fixed ? layout.room - fixed : 0;
  layout.application = applicationWidthIn(both);
  columns.what = cutAtEnd(columns.what, kWhatWidth);
  columns.application = cutAtEnd(lastPathComponent(columns.application), layout.application);
  columns.destination = cutAtBeginning(
      columns.destination,
      std::max(kDestinationWidth, both > layout.application ? both - layout.application : 0));
  return layout;
}

}  // namespace

std::string eventLine(const ReceivedEvent& event, const FlowRecord* flow,
                      const EventLineStyle& style) {
  Columns columns = describe(event, flow, style.time);
  const bool isNarrow = style.width != 0 && style.width < kWideTerminal;
  const Layout layout = isNarrow ? narrowed(columns, style) : Layout();
  std::string line = withoutTrailingBlanks(afterLevel(columns, layout));
  if (style.width != 0) {
    const std::size_t before = columnsOf(columns.time) + 1 + kLevelWidth;
    line = withoutTrailingBlanks(cutAtEnd(line, isNarrow ? layout.room : style.width - before));
  }
  return layout.hasLevel ? columns.time + levelColumn(event.level, style.colour) + line
                         : coloured(columns.time, event.level, style.colour) + line;
}

std::string outageLine(const Outage& outage, double now, const EventLineStyle& style) {
  return timeText(now, style.time) + levelColumn(outage.end ? "info" : "error", style.colour) +
         " " + outageLine(outage, style.time);
}

}  // namespace ostravel::companion
