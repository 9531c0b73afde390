#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "Tests/StandInMac/WorkQueue.h"

namespace ostravel::standin {

// A timer source of Dispatch. Held by its source object and by an expiration that waits or runs;
// the finalizer runs when the last of them is gone. Usable from any thread.
class TimerState : public std::enable_shared_from_this<TimerState> {
 public:
  using Function = void (*)(void* context);
  using Time = std::chrono::steady_clock::time_point;

  explicit TimerState(std::shared_ptr<WorkQueue> queue) : queue_(std::move(queue)) {}
  ~TimerState();

  void setContext(void* context);
  void* context();
  void setFinalizer(Function finalizer);
  // Remembers the current context.
  void setHandler(Function handler);
  // Without a start: never.
  void setTimer(std::optional<Time> start, std::optional<std::chrono::nanoseconds> interval);
  // Returns whether it was inactive until now.
  bool activate();
  bool isActive();
  void cancel();
  bool isCancelled();

  // For the timers' thread: the deadline with this number is due.
  void expire(std::uint64_t deadline);

 private:
  void setDeadline(Time due);
  void runHandler();

  const std::shared_ptr<WorkQueue> queue_;
  std::mutex lock_;
  void* context_ = nullptr;
  Function finalizer_ = nullptr;
  Function handler_ = nullptr;
  void* handlerContext_ = nullptr;
  std::optional<Time> start_;
  std::optional<std::chrono::nanoseconds> interval_;
  bool isActive_ = false;
  bool isCancelled_ = false;
  // An expiration waits on the queue; further ones are merged with it.
  bool isPending_ = false;
  // The only valid deadline; zero for none.
  std::uint64_t deadline_ = 0;
};

}  // namespace ostravel::standin
