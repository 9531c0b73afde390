#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Companion/Events/FlowHistory.h"

namespace ostravel::companion {

// Sums up the flows of a run of the monitor for its last line. Owned by the printer.
class EventSummary {
 public:
  // Call it with the flow after each of its events.
  void add(const FlowRecord& flow);

  // "152 flows, 3 failed (2 refused, 1 timed out), slowest 318 ms: APPLICATION to
  // DESTINATION". Safe to print.
  std::string text() const;

 private:
  std::uint64_t flows_ = 0;
  std::uint64_t failures_ = 0;
  std::map<FlowOutcome, std::uint64_t> failuresByOutcome_;
  double slowestSeconds_ = -1.0;
  std::string slowestFlow_;
};

}  // namespace ostravel::companion
