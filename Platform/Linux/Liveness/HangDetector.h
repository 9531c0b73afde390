#pragma once

#include <chrono>
#include <cstdint>

namespace ostravel::linuxplatform {

// Detects a hang of another process from a counter of that process that no longer changes. Reads no
// clock itself. Owned and used by the guardian's one thread.
//
// Only time during which the observer was running counts: a suspended machine, a paused virtual
// machine or a starved observer says nothing about the other process. Times are of the monotonic
// clock.
class HangDetector {
 public:
  using Clock = std::chrono::steady_clock;

  // How often to observe.
  static constexpr std::chrono::milliseconds kInterval{100};
  // If two observations are further apart, the observer was not running in between.
  static constexpr std::chrono::milliseconds kLongestGap{500};

  HangDetector(Clock::time_point now, std::uint32_t counter);

  // True if the counter has been unchanged for limit or longer. Any change is progress, even to a
  // smaller number.
  bool observe(Clock::time_point now, std::uint32_t counter, Clock::duration limit);

  // How long the counter had been unchanged at the last observation.
  Clock::duration silence() const { return lastObservation_ - unchangedSince_; }

 private:
  Clock::time_point lastObservation_;
  Clock::time_point unchangedSince_;
  std::uint32_t counter_;
};

}  // namespace ostravel::linuxplatform
