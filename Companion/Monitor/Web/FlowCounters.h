#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>

#include "Companion/Events/FlowHistory.h"

namespace ostravel::companion {

// Counters over all events since the start, for Prometheus. Owned by LiveState, which serialises
// the calls.
struct FlowCounters {
  // Upper bounds in seconds; the last bucket has none. The largest bound is the extension's
  // time-out.
  static constexpr std::array kBounds = {0.001, 0.0025, 0.005, 0.01, 0.025, 0.05,
                                         0.1,   0.25,   0.5,   1.0,  2.5,   5.0};
  // Further applications are counted together, to limit the number of labels.
  static constexpr std::size_t kMostApplications = 100;

  struct Application {
    std::uint64_t flows = 0;
    std::uint64_t failures = 0;
  };

  std::uint64_t flows = 0;
  std::map<FlowOutcome, std::uint64_t> failures;
  std::array<std::uint64_t, kBounds.size() + 1> answerBuckets{};
  double answerSeconds = 0;
  std::uint64_t answers = 0;
  std::map<std::string, Application> applications;

  // Call it with the flow after each of its events.
  void add(const FlowRecord& flow);
};

}  // namespace ostravel::companion
