#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "Platform/Interface/DispatchQueue.h"
#include "Platform/Interface/DispatchTimer.h"
#include "Platform/Linux/Services/TimerService.h"

namespace ostravel::linuxplatform {

// A timer on the monotonic clock, which does not count the time that the machine sleeps. The delay
// counts from schedule(); expirations before resume() are made up for by one as soon as it is
// called. Timers with the same leeway expire together where their leeway permits. Nominal times of
// a repeating timer do not drift.
class LinuxDispatchTimer final : public platform::DispatchTimer {
 public:
  // The service outlives the timer.
  LinuxDispatchTimer(TimerService& service, std::shared_ptr<platform::DispatchQueue> queue);
  ~LinuxDispatchTimer() override;

  void setEventHandler(Handler handler) override;
  // Replaces an earlier schedule. Throws std::logic_error for an interval that is not positive.
  void schedule(std::chrono::nanoseconds delay, std::optional<std::chrono::nanoseconds> interval,
                std::chrono::nanoseconds leeway) override;
  void resume() override;
  void cancel() override;

 private:
  // What expirations and submitted handlers still need when the timer is gone.
  struct State;

  static void arm(const std::shared_ptr<State>& state);
  static void expire(const std::shared_ptr<State>& state, unsigned arming);
  static void runHandler(State& state);

  const std::shared_ptr<State> state_;
};

}  // namespace ostravel::linuxplatform
