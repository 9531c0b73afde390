#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>

#include "Companion/Events/FlowHistory.h"

namespace ostravel::companion {

// A time in which the proxy did not do its work.
struct Outage {
  double begin = 0;             // seconds since 1970
  std::optional<double> end;    // absent while it lasts
  bool wasUnreachable = false;  // it did not accept connections
  std::uint64_t timedOut = 0;   // flows that it accepted and did not answer in time
  std::uint64_t backlog = 0;    // flows that found too many others waiting
  std::uint64_t brokeOff = 0;   // flows whose connection to it failed
  std::uint64_t invalid = 0;    // flows that it answered nonsense
  std::uint64_t reset = 0;      // tunnels that ended with an error meanwhile
  // The flows above by application. Bounded: the rest is counted under "others".
  std::map<std::string, std::uint64_t> applications;

  // That went direct instead.
  std::uint64_t direct() const { return timedOut + backlog + brokeOff; }
};

// Sums up what went wrong with the proxy, so that a person sees one outage instead of a thousand
// failed flows. An outage begins when the first flow that gets no answer is begun, or when the
// proxy becomes unreachable, and ends once it is reachable and nothing has failed for
// kQuietSeconds. A refusal is a decision of the proxy and no outage. Owned by LiveState, which
// serialises the calls.
class OutageLog {
 public:
  static constexpr double kQuietSeconds = 10.0;
  static constexpr std::size_t kMostOutages = 50;
  static constexpr std::size_t kMostApplications = 20;

  // A flow after one of its events.
  void add(const FlowRecord& flow);

  void setReachable(bool isReachable, double now);

  // Time has passed.
  void tick(double now);

  // The oldest first.
  const std::deque<Outage>& outages() const { return outages_; }
  std::uint64_t total() const { return total_; }

 private:
  Outage& current(double begin);

  std::deque<Outage> outages_;
  std::uint64_t total_ = 0;
  bool isReachable_ = true;
  double lastTrouble_ = 0;
};

// "hung", "unreachable", "hung, then unreachable" or "faulty".
std::string outageKind(const Outage& outage);

// What happened, what became of the connections, and whether one was lost: a few short sentences.
std::string outageText(const Outage& outage);

}  // namespace ostravel::companion
