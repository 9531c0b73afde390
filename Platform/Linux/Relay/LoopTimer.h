#pragma once

#include <optional>
#include <utility>

#include "Platform/Linux/Relay/LoopTimers.h"
#include "Platform/Linux/Relay/Task.h"

namespace ostravel::linuxplatform {

// Runs a task on its loop at a given time. Cancelled when it is destroyed. For the loop's thread,
// except that it may be made and, if it is not running, destroyed on another.
class LoopTimer {
 public:
  explicit LoopTimer(LoopTimers& timers) : timers_(timers) {}
  LoopTimer(const LoopTimer&) = delete;
  LoopTimer& operator=(const LoopTimer&) = delete;
  ~LoopTimer() { cancel(); }

  // Replaces a pending time and task. The task may destroy the timer.
  void start(LoopTimers::Clock::time_point time, Task task);
  void start(LoopTimers::Clock::duration delay, Task task) {
    start(LoopTimers::Clock::now() + delay, std::move(task));
  }
  // Destroys the task, if it has not run.
  void cancel();

 private:
  friend class LoopTimers;

  // Stops the timer and returns its task.
  Task take();

  LoopTimers& timers_;
  std::optional<LoopTimers::Entries::iterator> position_;
  Task task_;
};

}  // namespace ostravel::linuxplatform
