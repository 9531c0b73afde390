#pragma once

#include <chrono>

namespace ostravel::simulation {

// The probability of each fault in a run, from 0 to 1; by default there are none. The draws depend
// only on the seed.
struct FaultPlan {
  // A completion, an acceptance or a refusal is delayed by up to maximumLatency.
  double latency = 0.0;
  std::chrono::nanoseconds maximumLatency = std::chrono::milliseconds(50);

  // A read delivers less than is available, but at least its minimum.
  double shortRead = 0.0;
  // A read, or a write, fails with ECONNRESET, and so does every later one of that direction.
  double readError = 0.0;
  double writeError = 0.0;

  // Opening a flow fails.
  double openError = 0.0;
  // A connection is refused instead of accepted.
  double connectRefusal = 0.0;
  // A socket call to a listening peer is refused.
  double socketRefusal = 0.0;
};

}  // namespace ostravel::simulation
