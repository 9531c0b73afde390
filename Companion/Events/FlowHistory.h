#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Companion/Events/ReceivedEvent.h"

namespace ostravel::companion {

// What has come of a flow so far.
enum class FlowOutcome {
  connecting,     // the proxy has not answered yet
  open,           // a tunnel is established
  closed,         // it was, and has ended in order
  reset,          // it was, and has ended with an error
  refused,        // the proxy answered, and not with a tunnel
  invalidAnswer,  // the proxy answered something that is no HTTP
  timedOut,       // the proxy did not answer in time; the flow went direct
  backlog,        // too many handshakes were pending; the flow went direct
  failed,         // the connection to the proxy failed; the flow went direct
};

// One word or two, such as "timed out".
std::string_view outcomeText(FlowOutcome outcome);

// For programs, such as "timed_out".
std::string_view outcomeName(FlowOutcome outcome);

// The flow did not become a tunnel, or its tunnel ended with an error.
bool isFailure(FlowOutcome outcome);

// What the events of one flow have said. Its texts are as received, cut at a limit.
struct FlowRecord {
  struct Step {
    double timestamp = 0;
    std::string signal;
    std::string detail;
  };

  // More are not kept; a flow has four events at most.
  static constexpr std::size_t kMostSteps = 8;
  static constexpr std::size_t kLongestText = 512;

  std::string id;
  std::string application;
  std::string destination;
  FlowOutcome outcome = FlowOutcome::connecting;
  std::string reason;          // of a failure
  bool hasJustFailed = false;  // by the last event
  // Absent if the event that tells it was not received.
  std::optional<double> startedAt;
  std::optional<double> handshakeSeconds;
  std::optional<double> endedAt;
  double changedAt = 0;  // the time of the last event
  std::vector<Step> steps;
  std::uint64_t revision = 0;  // grows with each change of any flow
};

// Remembers flows by their identifiers, so that what is said of one event can name the application
// and the destination of its flow. Bounded: the flow that has not changed for the longest time is
// forgotten first, one that has ended before one that has not. Used by one thread.
class FlowHistory {
 public:
  struct Limits {
    std::size_t ended = 10'000;
    // More tunnels at once than a machine has.
    std::size_t live = 50'000;
  };

  FlowHistory() = default;
  explicit FlowHistory(Limits limits) : limits_(limits) {}

  // Applies an event. Its flow, until the next call; null for an event of no flow.
  const FlowRecord* apply(const ReceivedEvent& event);

  const FlowRecord* find(std::string_view id) const;

  // The flows that have changed after this revision, at most so many, the oldest change first.
  std::vector<const FlowRecord*> changedSince(std::uint64_t revision, std::size_t most) const;

  std::size_t size() const { return places_.size(); }
  std::size_t liveCount() const { return live_.size(); }
  std::size_t openCount() const { return open_; }
  std::uint64_t revision() const { return revision_; }

 private:
  using Records = std::list<FlowRecord>;
  struct Place {
    Records* records;
    Records::iterator position;
  };

  FlowRecord& recordOf(const std::string& id);
  void update(FlowRecord& record, const ReceivedEvent& event);
  void moveToEnd(const std::string& id, Records& to);
  void forgetBeyond(Records& records, std::size_t most);

  Limits limits_;
  // Each in the order of the last change.
  Records live_;
  Records ended_;
  std::unordered_map<std::string, Place> places_;
  std::size_t open_ = 0;
  std::uint64_t revision_ = 0;
};

}  // namespace ostravel::companion
