#include "Platform/Linux/Relay/LoopTimer.h"

#include <utility>

namespace ostravel::linuxplatform {

void LoopTimer::start(LoopTimers::Clock::time_point time, Task task) {
  cancel();
  task_ = std::move(task);
  position_ = timers_.entries_.emplace(time, this);
}

void LoopTimer::cancel() {
  const Task task = take();
}

Task LoopTimer::take() {
  if (const auto position = std::exchange(position_, std::nullopt)) {
    timers_.entries_.erase(*position);
  }
  return std::move(task_);
}

}  // namespace ostravel::linuxplatform
