#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "Platform/Interface/DispatchQueue.h"
#include "Platform/Interface/DispatchTimer.h"
#include "Platform/Linux/Services/TimerService.h"

namespace ostravel::linuxplatform {

// A timer on the monotonic clock, which stops while the machine sleeps. The delay starts at
// schedule(); expirations missed before resume() are merged into one that happens at once. Timers
// with the same leeway expire together where the leeway permits. A repeating timer does not drift.
class LinuxDispatchTimer final : public platform::DispatchTimer {
 public:
  // The service outlives the timer.
  LinuxDispatchTimer(TimerService& service, std::shared_ptr<platform::DispatchQueue> queue);
  ~LinuxDispatchTimer() override;

  void setEventHandler(Handler handler) override;
  // Replaces an earlier schedule. An interval that is not positive is a programming
  // error.
  void schedule(std::chrono::nanoseconds delay, std::optional<std::chrono::nanoseconds> interval,
                std::chrono::nanoseconds leeway) override;
  void resume() override;
  void cancel() override;

 private:
  // Shared with expirations and submitted handlers, which may outlive the timer.
  struct State;

  static void arm(const std::shared_ptr<State>& state);
  static void expire(const std::shared_ptr<State>& state, unsigned arming);
  static void runHandler(State& state);

  const std::shared_ptr<State> state_;
};

}  // namespace ostravel::linuxplatform
