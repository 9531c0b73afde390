#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "Platform/Interface/DispatchQueue.h"
#include "Platform/Interface/DispatchTimer.h"
#include "Platform/Simulation/Schedule/RunQueue.h"

namespace ostravel::simulation {

// A timer of virtual time. The delay counts from schedule(); expirations before resume() are merged
// into one, which follows it at once. In the seeded order an expiration is late by a drawn part of
// the leeway, otherwise it is punctual. Nominal times of a repeating timer do not drift.
class SimulatedTimer final : public platform::DispatchTimer {
 public:
  SimulatedTimer(RunQueue& run, std::shared_ptr<platform::DispatchQueue> queue);
  ~SimulatedTimer() override;

  void setEventHandler(Handler handler) override;
  // Replaces an earlier schedule. Throws std::logic_error for an interval that is not positive.
  void schedule(std::chrono::nanoseconds delay, std::optional<std::chrono::nanoseconds> interval,
                std::chrono::nanoseconds leeway) override;
  void resume() override;
  void cancel() override;

 private:
  // What alarms and submitted items still need after the timer is destroyed.
  struct State {
    explicit State(RunQueue& queueOfRun) : run(queueOfRun) {}

    RunQueue& run;
    std::shared_ptr<platform::DispatchQueue> queue;
    Handler handler;
    std::chrono::nanoseconds nextExpiration{0};
    std::optional<std::chrono::nanoseconds> interval;
    std::chrono::nanoseconds leeway{0};
    std::optional<RunQueue::AlarmKey> alarm;
    bool isScheduled = false;
    bool isResumed = false;
    bool isCancelled = false;
    // A handler was submitted and has not started.
    bool isHandlerWaiting = false;
  };

  static void arm(const std::shared_ptr<State>& state);
  static void disarm(State& state);
  static void expire(const std::shared_ptr<State>& state);
  static void runHandler(State& state);

  const std::shared_ptr<State> state_;
};

}  // namespace ostravel::simulation
