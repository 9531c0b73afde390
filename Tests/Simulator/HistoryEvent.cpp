#include "Tests/Simulator/HistoryEvent.h"

#include <array>
#include <cstddef>

namespace ostravel::simulator {

namespace {

// In the order of the enumeration.
constexpr std::array<std::string_view, static_cast<std::size_t>(HistoryKind::stepDone) + 1> kNames =
    {"provider made",     "provider started",
     "provider stopped",  "provider released",
     "flow offered",      "flow answered",
     "flow open",         "flow open done",
     "flow read",         "flow read done",
     "flow write",        "flow write done",
     "flow closeRead",    "flow closeWrite",
     "flow destroyed",    "connection made",
     "observer added",    "observer ready",
     "observer removed",  "state notified",
     "connection read",   "connection read done",
     "connection write",  "connection write done",
     "connection cancel", "connection destroyed",
     "timeout fired",     "probe done",
     "event received",    "log",
     "preempted",         "step done"};

constexpr std::size_t kLongestText = 160;

std::string printable(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes.substr(0, kLongestText)) {
    switch (byte) {
      case '\r':
        text += "\\r";
        break;
      case '\n':
        text += "\\n";
        break;
      default:
        text += byte >= ' ' && byte <= '~' ? byte : '?';
    }
  }
  return bytes.size() > kLongestText ? text + "..." : text;
}

}  // namespace

std::string_view nameOf(HistoryKind kind) {
  return kNames[static_cast<std::size_t>(kind)];
}

std::string describe(const HistoryEvent& event) {
  std::string line;
  if (event.flow != 0) {
    line += "flow " + std::to_string(event.flow) + ": ";
  }
  line += nameOf(event.kind);
  if (event.number != 0) {
    line += " " + std::to_string(event.number);
  }
  if (!event.bytes.empty()) {
    line += " " + std::to_string(event.bytes.size()) + " bytes \"" + printable(event.bytes) + "\"";
  }
  if (event.error != nullptr) {
    line += " " + platform::describe(*event.error);
  }
  if (event.offered != nullptr) {
    line += " \"" + printable(event.offered->identifier) + "\" to \"" +
            printable(event.offered->host) + "\" port \"" + printable(event.offered->port) + "\"";
  }
  return line;
}

}  // namespace ostravel::simulator
