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

// The state of a flow according to its events so far.
enum class FlowOutcome {
  connecting,     // the proxy has not answered yet
  open,           // a tunnel is established
  closed,         // the tunnel has ended in order
  reset,          // the tunnel has ended with an error
  refused,        // the proxy refused the tunnel
  invalidAnswer,  // the proxy's answer was not HTTP
  timedOut,       // the proxy did not answer in time; the flow went direct
  backlog,        // too many handshakes were pending; the flow went direct
  failed,         // the connection to the proxy failed; the flow went direct
};

// For display: one or two words, such as "timed out".
std::string_view outcomeText(FlowOutcome outcome);

// For programs, such as "timed_out".
std::string_view outcomeName(FlowOutcome outcome);

// True if the flow did not become a tunnel, or its tunnel ended with an error.
bool isFailure(FlowOutcome outcome);

// The information from the events of one flow. Texts are as received, truncated at a limit.
struct FlowRecord {
  struct Step {
    double timestamp = 0;
    std::string signal;
    std::string detail;
  };

  // Limit on the steps that are kept; a flow has at most four events.
  static constexpr std::size_t kMostSteps = 8;
  static constexpr std::size_t kLongestText = 512;

  std::string host;  // whose flow it is; empty for this machine
  std::string id;
  std::string application;
  std::string destination;
  FlowOutcome outcome = FlowOutcome::connecting;
  std::string reason;          // of a failure
  bool hasJustFailed = false;  // by the last event
  // Absent if the event that reports it was not received.
  std::optional<double> startedAt;
  std::optional<double> handshakeSeconds;
  std::optional<double> endedAt;
  double changedAt = 0;  // the time of the last event
  std::vector<Step> steps;
  std::uint64_t revision = 0;  // grows with each change of any flow
};

// Remembers flows by their identifiers, so that the display of one event can name the application
// and the destination of its flow. Open and ended flows have separate limits; beyond these, the
// flow that has not changed for the longest time is dropped. Used by one thread.
class FlowHistory {
 public:
  struct Limits {
    std::size_t ended = 10'000;
    // Exceeds the number of concurrent tunnels on any machine.
    std::size_t live = 50'000;
  };

  FlowHistory() = default;
  explicit FlowHistory(Limits limits) : limits_(limits) {}

  // Applies an event. Returns its flow, which is valid until the next call; null for an event
  // without a flow.
  const FlowRecord* apply(const ReceivedEvent& event);

  const FlowRecord* find(std::string_view id) const;

  // The flows that have changed after this revision, at most `most` of them, oldest change first.
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
  // Both in the order of the last change.
  Records live_;
  Records ended_;
  std::unordered_map<std::string, Place> places_;
  std::size_t open_ = 0;
  std::uint64_t revision_ = 0;
};

}  // namespace ostravel::companion
