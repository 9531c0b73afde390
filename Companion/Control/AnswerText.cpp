#include "Companion/Control/AnswerText.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <utility>
#include <vector>

#include "Base/CountedText.h"
#include "Base/PrintableText.h"
#include "Companion/Shared/ColumnText.h"

namespace ostravel::companion {
namespace {

constexpr std::size_t kLongestLine = 79;

std::string formatted(const char* format, double number) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), format, number);
  return text.data();
}

// The text, wrapped at the width of a screen. Further lines begin with the indent.
std::string wrapped(std::string_view text, std::size_t used, std::size_t indent) {
  std::string lines;
  while (!text.empty()) {
    const auto space = text.find(' ');
    const std::size_t size = space == std::string_view::npos ? text.size() : space + 1;
    if (used + size > kLongestLine + 1 && used > indent) {
      lines = withoutTrailingBlanks(lines) + '\n' + std::string(indent, ' ');
      used = indent;
    }
    lines += text.substr(0, size);
    used += size;
    text.remove_prefix(size);
  }
  return withoutTrailingBlanks(lines) + '\n';
}

// A line of the status: a name and its value.
std::string row(const std::string& name, const std::string& text) {
  constexpr std::size_t kIndent = 13;
  return name + std::string(kIndent - name.size(), ' ') + wrapped(text, kIndent, kIndent);
}

std::string countText(const json_t* status, std::string_view path) {
  return std::to_string(integerOf(status, path));
}

std::string countedText(const json_t* status, std::string_view path, const std::string& noun) {
  return counted(static_cast<std::uint64_t>(integerOf(status, path)), noun);
}

// "3 timed_out, 2 rejected", largest count first.
std::string listOf(const json_t* counts) {
  std::vector<std::pair<json_int_t, std::string>> parts;
  const char* key = nullptr;
  json_t* value = nullptr;
  json_object_foreach(const_cast<json_t*>(counts), key, value) {
    if (json_integer_value(value) > 0) {
      parts.emplace_back(json_integer_value(value), printableText(key));
    }
  }
  std::ranges::sort(parts, std::ranges::greater(), &std::pair<json_int_t, std::string>::first);
  std::string list;
  for (const auto& [count, name] : parts) {
    list += (list.empty() ? "" : ", ") + std::to_string(count) + " " + name;
  }
  return list;
}

std::string timesText(const json_t* histogram) {
  const auto p50 = numberOf(histogram, "p50_us");
  if (!p50) {
    return "";
  }
  return "half within " + microsecondsText(*p50) + ", 90% within " +
         microsecondsText(*numberOf(histogram, "p90_us")) + ", 99% within " +
         microsecondsText(*numberOf(histogram, "p99_us"));
}

std::string sinceText(const json_t* status, std::string_view path) {
  const auto since = numberOf(status, path);
  const double now = numberOf(status, "program.now").value_or(0);
  return since ? "since " + timeText(*since, TimeStyle::local) + " (" + spanText(now - *since) + ")"
               : std::string();
}

std::string gateText(const json_t* status) {
  const std::string state = textOf(status, "gate.state");
  std::string text = state.empty() ? "unknown" : state;
  if (const std::string since = sinceText(status, "gate.since"); !since.empty()) {
    text += " " + since;
  }
  if (const auto probed = numberOf(status, "gate.last_probe.at")) {
    const double now = numberOf(status, "program.now").value_or(*probed);
    const bool isReachable = json_is_true(memberOf(status, "gate.last_probe.reachable"));
    text += "; probed " + spanText(now - *probed) +
            " ago: " + (isReachable ? "reachable" : "not reachable");
  }
  return text;
}

// A flow that waited for the proxy and then went direct counts as direct.
std::string flowsText(const json_t* status) {
  const std::int64_t afterWaiting = integerOf(status, "flows.direct_in_the_end");
  const std::int64_t taken = integerOf(status, "flows.proxied");
  // An end may be counted shortly before its beginning.
  std::string text =
      countText(status, "flows.offered") +
      " examined: " + std::to_string(std::max(taken - afterWaiting, std::int64_t{0})) +
      " proxied, " + std::to_string(integerOf(status, "flows.direct") + afterWaiting) + " direct";
  if (afterWaiting > 0) {
    text += " (" + std::to_string(afterWaiting) + " after waiting for the proxy)";
  }
  return text + ", " + countText(status, "flows.refused") + " refused; " +
         countText(status, "flows.held_now") + " held now";
}

std::string handshakeText(const json_t* status) {
  std::string text = countText(status, "handshakes.pending_now") + " pending of " +
                     countText(status, "handshakes.limit") + "; " +
                     countText(status, "handshakes.outcomes.established") + " succeeded";
  const json_t* const outcomes = memberOf(status, "handshakes.outcomes");
  std::string failed;
  for (const auto* name : {"timed_out", "rejected", "invalid", "backlog", "no_answer",
                           "request_failed", "connection_failed", "abandoned"}) {
    if (const auto count = integerOf(outcomes, name); count > 0) {
      failed += ", " + std::to_string(count) + " " + name;
    }
  }
  return text + failed;
}

std::string namesText(const json_t* status) {
  const std::string use = textOf(status, "names.use");
  if (memberOf(status, "names.known") == nullptr) {
    return use == "off" ? "not observed (--names off)" : "cannot be observed; the log says why";
  }
  return countText(status, "names.known") + " known, used to " +
         (use == "connect" ? "decide and to ask the proxy" : "decide");
}

// The outcomes of flows that were given back to the system while they were held.
bool wentDirectInTheEnd(const json_t* flow) {
  constexpr std::array<std::string_view, 4> kOutcomes{"timed_out", "backlog", "request_failed",
                                                      "connection_failed"};
  return std::ranges::find(kOutcomes, textOf(flow, "outcome")) != kOutcomes.end();
}

std::string flowDetails(const json_t* flow) {
  std::string text;
  if (const std::string host = textOf(flow, "host"); !host.empty()) {
    text += " (" + host + ")";
  }
  if (textOf(flow, "protocol") == "udp") {
    text += " udp";
  }
  if (const std::string reason = textOf(flow, "reason"); reason != "proxied") {
    text += " " + reason;
  }
  if (wentDirectInTheEnd(flow)) {
    text += " went direct";
  }
  if (const auto handshake = numberOf(flow, "handshake_ms")) {
    text += " handshake " + microsecondsText(*handshake * 1000);
  }
  const double sent = numberOf(flow, "bytes_sent").value_or(0);
  const double received = numberOf(flow, "bytes_received").value_or(0);
  if (sent + received > 0) {
    text += " sent " + bytesText(sent) + " received " + bytesText(received);
  }
  if (const std::string detail = textOf(flow, "detail"); !detail.empty() && detail != "eof") {
    text += " (" + detail + ")";
  }
  return text;
}

// The beginning of a line of an explanation: a name, and a mark at the rule that decides.
std::string explanationRow(const std::string& name, const std::string& mark) {
  constexpr std::size_t kNameWidth = 12;
  constexpr std::size_t kMarkWidth = 3;
  return padded(name, kNameWidth) + padded(mark, kMarkWidth);
}

}  // namespace

const json_t* memberOf(const json_t* object, std::string_view path) {
  while (object != nullptr && !path.empty()) {
    const auto end = std::min(path.size(), path.find('.'));
    object = json_object_get(object, std::string(path.substr(0, end)).c_str());
    path.remove_prefix(std::min(path.size(), end + 1));
  }
  return object;
}

std::int64_t integerOf(const json_t* object, std::string_view path) {
  return json_integer_value(memberOf(object, path));
}

std::optional<double> numberOf(const json_t* object, std::string_view path) {
  const json_t* const value = memberOf(object, path);
  return json_is_number(value) ? std::optional(json_number_value(value)) : std::nullopt;
}

std::string textOf(const json_t* object, std::string_view path) {
  const json_t* const value = memberOf(object, path);
  return json_is_string(value)
             ? printableText({json_string_value(value), json_string_length(value)})
             : std::string();
}

std::string bytesText(double bytes) {
  constexpr std::array kUnits{"B", "KiB", "MiB", "GiB", "TiB"};
  constexpr double kStep = 1024;
  std::size_t unit = 0;
  for (; bytes >= kStep && unit + 1 < kUnits.size(); ++unit) {
    bytes /= kStep;
  }
  return formatted(unit == 0 || bytes >= 100 ? "%.0f " : "%.1f ", bytes) + kUnits[unit];
}

std::string microsecondsText(double microseconds) {
  constexpr double kStep = 1000;
  if (microseconds < kStep) {
    return formatted("%.0f µs", microseconds);
  }
  if (microseconds < kStep * kStep) {
    return formatted(microseconds < 100 * kStep ? "%.1f ms" : "%.0f ms", microseconds / kStep);
  }
  return formatted("%.1f s", microseconds / kStep / kStep);
}

std::string spanText(double seconds) {
  constexpr double kMinute = 60;
  constexpr double kHour = 60 * kMinute;
  constexpr double kDay = 24 * kHour;
  seconds = std::max(seconds, 0.0);
  if (seconds < 2 * kMinute) {
    return formatted(seconds < 10 ? "%.1f s" : "%.0f s", seconds);
  }
  if (seconds < 2 * kHour) {
    return formatted("%.0f min", seconds / kMinute);
  }
  return seconds < 2 * kDay ? formatted("%.0f h", seconds / kHour)
                            : formatted("%.0f d", seconds / kDay);
}

std::string statusText(const json_t* status) {
  std::string text = wrapped(textOf(status, "proxying.message"), 0, 0);
  if (const std::string since = sinceText(status, "proxying.since"); !since.empty()) {
    text += "S" + since.substr(1) + ".\n";
  }
  text += "\n";
  text += row("extension", textOf(status, "program.version") + ", process " +
                               countText(status, "program.pid") + ", " +
                               sinceText(status, "program.started_at"));
  const std::string process = textOf(status, "proxy.process");
  text += row("proxy", (process.empty() ? "none" : process) + " on " +
                           textOf(status, "proxy.address") + ": " + textOf(status, "proxy.reason"));
  text += row("gate", gateText(status));
  text += row("flows", flowsText(status));
  if (const std::string reasons = listOf(memberOf(status, "flows.direct_by_reason"));
      !reasons.empty()) {
    text += row("direct", reasons);
  }
  text += row("handshakes", handshakeText(status));
  if (const std::string times = timesText(memberOf(status, "handshakes.time")); !times.empty()) {
    text += row("", times);
  }
  text +=
      row("tunnels",
          countText(status, "tunnels.now") + " open of " + countText(status, "tunnels.total") +
              "; sent " + bytesText(static_cast<double>(integerOf(status, "tunnels.bytes_sent"))) +
              ", received " +
              bytesText(static_cast<double>(integerOf(status, "tunnels.bytes_received"))));
  if (const std::string times = timesText(memberOf(status, "verdicts.time")); !times.empty()) {
    text += row("decisions", times);
  }
  if (memberOf(status, "queue") != nullptr) {
    text += row("queue", countText(status, "queue.waiting") + " waiting; missed " +
                             countText(status, "queue.dropped"));
  }
  if (memberOf(status, "names") != nullptr) {
    text += row("names", namesText(status));
  }
  text += row("identifiers",
              countedText(status, "identifiers.registrations", "registration") + "; " +
                  countedText(status, "identifiers.processes", "recent sender") + " identified");
  text += row("events", json_is_true(memberOf(status, "events.configured"))
                            ? countText(status, "events.emitted") + " made; " +
                                  countText(status, "events.failed") + " not delivered, " +
                                  countText(status, "events.dropped") + " dropped"
                            : std::string("no monitoring socket is configured"));
  text += row("guardian", textOf(status, "guardian") +
                              "; log lines dropped: " + countText(status, "log.dropped_lines") +
                              "; descriptors: " + countText(status, "descriptors.open") + " of " +
                              countText(status, "descriptors.limit"));
  return text;
}

std::string flowText(const json_t* flow, FlowTextStyle style) {
  constexpr std::size_t kOutcomeWidth = 11;
  std::string time = timeText(numberOf(flow, "time").value_or(0), style.time);
  std::string application = textOf(flow, "application");
  application = application.empty() ? "(unknown)" : application;
  std::string destination = textOf(flow, "destination");
  std::size_t applicationWidth = kApplicationWidth;
  if (style.width != 0 && style.width < kWideTerminal) {
    if (style.time == TimeStyle::timeOfDay) {
      time = firstColumns(time, kShortTimeWidth);
    }
    const std::size_t used = columnsOf(time) + 1 + kOutcomeWidth + 1;
    const std::size_t room = style.width > used + 1 ? style.width - used - 1 : 0;
    applicationWidth = applicationWidthIn(room);
    application = cutAtEnd(lastPathComponent(application), applicationWidth);
    destination = cutAtBeginning(destination, kDestinationWidth);
  }
  const std::string line = time + " " + padded(textOf(flow, "outcome"), kOutcomeWidth) + " " +
                           padded(application, applicationWidth) + " " +
                           padded(destination, kDestinationWidth) + flowDetails(flow);
  return withoutTrailingBlanks(style.width == 0 ? line : cutAtEnd(line, style.width));
}

std::string explanationText(const json_t* explanation) {
  std::string text;
  if (memberOf(explanation, "application") != nullptr) {
    const std::string identifier = textOf(explanation, "application");
    text += explanationRow("application", "") + (identifier.empty() ? "(unknown)" : identifier) +
            ", from its " + textOf(explanation, "application_from") + "\n";
  }
  std::size_t index = 0;
  json_t* rule = nullptr;
  json_array_foreach(memberOf(explanation, "rules"), index, rule) {
    text +=
        explanationRow(textOf(rule, "rule"), json_is_true(memberOf(rule, "decides")) ? "=>" : "") +
        textOf(rule, "message") + "\n";
  }
  const std::string action = textOf(explanation, "action");
  const std::string reason = textOf(explanation, "reason");
  return text + action + (reason == action ? "" : " (" + reason + ")") + "\n";
}

}  // namespace ostravel::companion
