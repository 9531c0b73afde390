#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

namespace ostravel::linuxplatform {

// The thread on which the timers of all queues expire. It only submits handlers to their queues, so
// a handler cannot delay another timer. Owned by the platform; outlives every timer. Usable from
// any thread.
//
// Nearly all alarms are cancelled long before they are due: every tunnel sets one, and few expire.
// So cancelling an alarm wakes no thread, and setting one does only if it is the next to expire.
class TimerService {
 public:
  using Clock = std::chrono::steady_clock;
  // When an alarm is due, and a number that makes it unique.
  using Alarm = std::pair<Clock::time_point, std::uint64_t>;

  // Throws std::system_error if the thread cannot be created.
  TimerService();
  TimerService(const TimerService&) = delete;
  TimerService& operator=(const TimerService&) = delete;
  ~TimerService();

  // No alarm expires after this returns.
  void stop();

  // Calls expire at that time, on the thread of the service, unless the alarm is cancelled.
  Alarm set(Clock::time_point time, std::function<void()> expire);
  // The alarm may already be expiring on the service's thread.
  void cancel(const Alarm& alarm);

 private:
  void run();
  void waitForNext(std::unique_lock<std::mutex>& lock);

  std::mutex mutex_;
  std::condition_variable wakeUp_;
  std::map<Alarm, std::function<void()>> alarms_;
  std::uint64_t lastNumber_ = 0;
  // Setting an alarm that is due earlier than this wakes the thread.
  Clock::time_point sleepsUntil_ = Clock::time_point::min();
  bool isStopping_ = false;
  std::thread thread_;
};

}  // namespace ostravel::linuxplatform
