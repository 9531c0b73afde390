#include "Platform/Simulation/Schedule/SimulatedTimer.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace ostravel::simulation {

namespace {

constexpr auto kZero = std::chrono::nanoseconds::zero();
constexpr auto kEndOfTime = std::chrono::nanoseconds::max();

}  // namespace

SimulatedTimer::SimulatedTimer(RunQueue& run, std::shared_ptr<platform::DispatchQueue> queue)
    : state_(std::make_shared<State>(run)) {
  state_->queue = std::move(queue);
}

SimulatedTimer::~SimulatedTimer() {
  cancel();
}

void SimulatedTimer::setEventHandler(Handler handler) {
  // The old one may hold the last reference to this timer.
  const auto state = state_;
  const auto old = std::exchange(state->handler, std::move(handler));
}

void SimulatedTimer::schedule(std::chrono::nanoseconds delay,
                              std::optional<std::chrono::nanoseconds> interval,
                              std::chrono::nanoseconds leeway) {
  if (interval && *interval <= kZero) {
    throw std::logic_error("the interval of a repeating timer is not positive");
  }
  const auto now = state_->run.now();
  const auto wait = std::max(delay, kZero);
  state_->nextExpiration = wait > kEndOfTime - now ? kEndOfTime : now + wait;
  state_->interval = interval;
  state_->leeway = std::max(leeway, kZero);
  state_->isScheduled = true;
  arm(state_);
}

void SimulatedTimer::resume() {
  state_->isResumed = true;
  arm(state_);
}

void SimulatedTimer::cancel() {
  state_->isCancelled = true;
  disarm(*state_);
}

void SimulatedTimer::arm(const std::shared_ptr<State>& state) {
  disarm(*state);
  if (!state->isScheduled || !state->isResumed || state->isCancelled) {
    return;
  }
  const auto room = kEndOfTime - state->nextExpiration;
  const bool isDue = state->nextExpiration <= state->run.now();
  const auto leeway = isDue ? kZero : std::min(state->leeway, room);
  const auto bound = static_cast<std::uint64_t>(leeway.count());
  const std::chrono::nanoseconds lateness(bound == 0 ? 0 : state->run.draw(bound));
  state->alarm = state->run.setAlarm(state->nextExpiration + lateness,
                                     [weakState = std::weak_ptr<State>(state)] {
                                       if (const auto strongState = weakState.lock()) {
                                         expire(strongState);
                                       }
                                     });
}

void SimulatedTimer::disarm(State& state) {
  if (state.alarm) {
    state.run.cancelAlarm(*state.alarm);
    state.alarm.reset();
  }
}

// The steps are those of LinuxDispatchTimer. They are not shared: there each is taken under a lock,
// and here time ends.
void SimulatedTimer::expire(const std::shared_ptr<State>& state) {
  state->alarm.reset();
  if (!state->isHandlerWaiting) {
    state->isHandlerWaiting = true;
    state->queue->async([weakState = std::weak_ptr<State>(state)] {
      if (const auto strongState = weakState.lock()) {
        runHandler(*strongState);
      }
    });
  }
  if (!state->interval) {
    state->isScheduled = false;
    return;
  }
  // Expirations that were missed are merged with this one.
  const auto missed = (state->run.now() - state->nextExpiration) / *state->interval;
  const auto step = *state->interval * (missed + 1);
  const auto room = kEndOfTime - state->nextExpiration;
  state->nextExpiration = step > room ? kEndOfTime : state->nextExpiration + step;
  arm(state);
}

void SimulatedTimer::runHandler(State& state) {
  state.isHandlerWaiting = false;
  if (state.isCancelled || !state.handler) {
    return;
  }
  // The handler may replace itself or destroy the timer.
  const Handler handler = state.handler;
  handler();
}

}  // namespace ostravel::simulation
