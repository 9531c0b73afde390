#pragma once

#include <chrono>
#include <functional>
#include <optional>

namespace ostravel::platform {

// Runs a handler on a queue after a delay, once or repeatedly. Created suspended; resume() starts
// it. Expirations while the handler is waiting to run are merged with it. All operations may be
// called from any thread, including from the handler.
class DispatchTimer {
 public:
  using Handler = std::function<void()>;

  DispatchTimer() = default;
  DispatchTimer(const DispatchTimer&) = delete;
  DispatchTimer& operator=(const DispatchTimer&) = delete;
  // Destroying a timer cancels it.
  virtual ~DispatchTimer() = default;

  // Replaces the handler; an expiration that has not yet started runs the new one.
  virtual void setEventHandler(Handler handler) = 0;

  // First expiration delay from now, then every interval, which is positive, if there is one. The
  // platform may be late by up to leeway to save wake-ups, except for an expiration that is due at
  // once.
  virtual void schedule(std::chrono::nanoseconds delay,
                        std::optional<std::chrono::nanoseconds> interval,
                        std::chrono::nanoseconds leeway) = 0;

  // Has no effect on a timer that has been cancelled.
  virtual void resume() = 0;

  // No handler starts after this returns, except one that is being started at the same moment on
  // another thread.
  virtual void cancel() = 0;
};

}  // namespace ostravel::platform
