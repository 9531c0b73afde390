#pragma once

#include <cstddef>
#include <iosfwd>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>

namespace ostravel::test {

// One monitoring event as a companion reads it from a frame.
struct MonitoringRecord {
  using Metrics = std::map<std::string, double>;
  using Context = std::map<std::string, std::string>;

  std::string messageID;
  double timestamp = 0.0;
  std::string loggedAt;
  std::string type;
  std::string signal;
  std::optional<std::string> flowID;
  std::string component;
  std::string level;
  std::string code;
  std::string message;
  std::optional<Metrics> metrics;
  std::optional<Context> context;
  // Every key of the object.
  std::set<std::string> keys;
};

// Throws std::runtime_error unless the frame is a length and exactly that many bytes of one JSON
// object whose members have the right types.
MonitoringRecord parseFrame(std::span<const std::byte> frame);

// What an event reports, without what differs from run to run: tests compare events by it. The
// defaults are those of a generic event.
struct EventFacts {
  std::string signal;
  std::string code;
  std::string level;
  std::string message;
  std::optional<std::string> flowID = std::nullopt;
  std::optional<MonitoringRecord::Metrics> metrics = std::nullopt;
  std::optional<MonitoringRecord::Context> context = std::nullopt;

  friend bool operator==(const EventFacts&, const EventFacts&) = default;
};

EventFacts factsOf(const MonitoringRecord& record);

void PrintTo(const EventFacts& facts, std::ostream* stream);

}  // namespace ostravel::test
