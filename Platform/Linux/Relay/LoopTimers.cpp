#include "Platform/Linux/Relay/LoopTimers.h"

#include <algorithm>

#include "Platform/Linux/Relay/LoopTimer.h"

namespace ostravel::linuxplatform {

std::optional<std::chrono::milliseconds> LoopTimers::untilNext(Clock::time_point now) const {
  if (entries_.empty()) {
    return std::nullopt;
  }
  const auto left = std::max(entries_.begin()->first - now, Clock::duration::zero());
  return std::chrono::ceil<std::chrono::milliseconds>(left);
}

void LoopTimers::runDue(Clock::time_point now) {
  while (!entries_.empty() && entries_.begin()->first <= now) {
    Task task = entries_.begin()->second->take();
    task();
  }
}

void LoopTimers::drop() {
  while (!entries_.empty()) {
    // Its captures may include other timers.
    const Task task = entries_.begin()->second->take();
  }
}

}  // namespace ostravel::linuxplatform
