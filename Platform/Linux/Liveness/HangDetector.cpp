#include "Platform/Linux/Liveness/HangDetector.h"

#include <utility>

namespace ostravel::linuxplatform {

HangDetector::HangDetector(Clock::time_point now, std::uint32_t counter)
    : lastObservation_(now), unchangedSince_(now), counter_(counter) {}

bool HangDetector::observe(Clock::time_point now, std::uint32_t counter, Clock::duration limit) {
  const auto gap = now - std::exchange(lastObservation_, now);
  const bool hasChanged = std::exchange(counter_, counter) != counter;
  if (hasChanged || gap > kLongestGap || gap < Clock::duration::zero()) {
    unchangedSince_ = now;
    return false;
  }
  return silence() >= limit;
}

}  // namespace ostravel::linuxplatform
