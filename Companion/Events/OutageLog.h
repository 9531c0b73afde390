#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>

#include "Companion/Events/FlowHistory.h"

namespace ostravel::companion {

// A period in which the proxy failed.
struct Outage {
  double begin = 0;             // seconds since 1970
  std::optional<double> end;    // absent while it lasts
  bool wasUnreachable = false;  // it did not accept connections
  std::uint64_t timedOut = 0;   // flows that it accepted and did not answer in time
  std::uint64_t backlog = 0;    // flows that exceeded the limit of pending handshakes
  std::uint64_t brokeOff = 0;   // flows whose connection to it failed
  std::uint64_t invalid = 0;    // flows with an invalid answer
  std::uint64_t reset = 0;      // tunnels that ended with an error meanwhile
  // The flows above by application. Bounded: further ones are counted under "others".
  std::map<std::string, std::uint64_t> applications;

  // Flows that went direct instead.
  std::uint64_t direct() const { return timedOut + backlog + brokeOff; }
};

// Groups the proxy's failures, so that the page shows one outage instead of a thousand failed
// flows. An outage begins with the start of the first flow that receives no answer, or when the
// proxy becomes unreachable, and ends once the proxy is reachable and nothing has failed for
// kQuietSeconds. A refusal is the proxy's decision and not a failure. Owned by LiveState, which
// serialises the calls.
class OutageLog {
 public:
  static constexpr double kQuietSeconds = 10.0;
  static constexpr std::size_t kMostOutages = 50;
  static constexpr std::size_t kMostApplications = 20;

  // Call it with the flow after each of its events.
  void add(const FlowRecord& flow);

  void setReachable(bool isReachable, double now);

  // Ends an outage when its quiet time is over. Call it periodically.
  void tick(double now);

  // Oldest first.
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

// A few short sentences: what happened, where the connections went, and whether any was lost.
std::string outageText(const Outage& outage);

}  // namespace ostravel::companion
