#pragma once

#include <chrono>
#include <map>
#include <optional>

namespace ostravel::linuxplatform {

class LoopTimer;

// The running timers of an event loop, ordered by time. Starting one costs no system call: the
// loop's wait ends when it is due. For the loop's thread.
class LoopTimers {
 public:
  using Clock = std::chrono::steady_clock;

  LoopTimers() = default;
  LoopTimers(const LoopTimers&) = delete;
  LoopTimers& operator=(const LoopTimers&) = delete;

  // Empty if no timer is running; rounded up, so that a wait of this length is not too short.
  std::optional<std::chrono::milliseconds> untilNext(Clock::time_point now) const;
  // Runs the timers that are due.
  void runDue(Clock::time_point now);
  // Destroys the tasks of all timers without running them. Once the loop has stopped.
  void drop();

 private:
  friend class LoopTimer;
  using Entries = std::multimap<Clock::time_point, LoopTimer*>;

  Entries entries_;
};

}  // namespace ostravel::linuxplatform
