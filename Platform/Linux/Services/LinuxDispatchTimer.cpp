#include "Platform/Linux/Services/LinuxDispatchTimer.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "Base/ProgrammingError.h"

namespace ostravel::linuxplatform {

namespace {

using Clock = TimerService::Clock;
using std::chrono::nanoseconds;

constexpr auto kZero = nanoseconds::zero();
// The latest time to which a wait can still be added without overflow.
constexpr auto kEndOfTime = Clock::time_point::max() - std::chrono::hours(24);

Clock::time_point later(Clock::time_point time, nanoseconds wait) {
  return wait > kEndOfTime - time ? kEndOfTime : time + wait;
}

// The next common expiry of all timers with this leeway; immediate if already due.
Clock::time_point coalesced(Clock::time_point time, nanoseconds leeway) {
  if (time <= Clock::now()) {
    return time;
  }
  const auto past = leeway > kZero ? time.time_since_epoch() % leeway : kZero;
  return past == kZero ? time : later(time, leeway - past);
}

}  // namespace

struct LinuxDispatchTimer::State {
  State(TimerService& serviceOfAlarm, std::shared_ptr<platform::DispatchQueue> queueOfHandler)
      : service(serviceOfAlarm), queue(std::move(queueOfHandler)) {}

  TimerService& service;
  const std::shared_ptr<platform::DispatchQueue> queue;

  // Guards everything below.
  std::mutex mutex;
  std::optional<TimerService::Alarm> alarm;
  // Incremented whenever the alarm is set, to recognise one that expired before it was cancelled.
  unsigned arming = 0;
  std::shared_ptr<const Handler> handler;
  Clock::time_point nextExpiration;
  std::optional<nanoseconds> interval;
  nanoseconds leeway{0};
  bool isScheduled = false;
  bool isResumed = false;
  bool isCancelled = false;
  // A handler was submitted and has not started.
  bool isHandlerWaiting = false;
};

LinuxDispatchTimer::LinuxDispatchTimer(TimerService& service,
                                       std::shared_ptr<platform::DispatchQueue> queue)
    : state_(std::make_shared<State>(service, std::move(queue))) {}

LinuxDispatchTimer::~LinuxDispatchTimer() {
  cancel();
}

void LinuxDispatchTimer::setEventHandler(Handler handler) {
  std::shared_ptr<const Handler> replacement;
  if (handler) {
    replacement = std::make_shared<const Handler>(std::move(handler));
  }
  // The old handler is destroyed outside the lock, and may hold the last reference to this timer.
  const auto state = state_;
  const std::lock_guard lock(state->mutex);
  state->handler.swap(replacement);
}

void LinuxDispatchTimer::schedule(nanoseconds delay, std::optional<nanoseconds> interval,
                                  nanoseconds leeway) {
  if (interval && *interval <= kZero) {
    programmingError("the interval of a repeating timer is not positive");
  }
  const std::lock_guard lock(state_->mutex);
  state_->nextExpiration = later(Clock::now(), std::max(delay, kZero));
  state_->interval = interval;
  state_->leeway = std::max(leeway, kZero);
  state_->isScheduled = true;
  arm(state_);
}

void LinuxDispatchTimer::resume() {
  const std::lock_guard lock(state_->mutex);
  state_->isResumed = true;
  arm(state_);
}

void LinuxDispatchTimer::cancel() {
  const std::lock_guard lock(state_->mutex);
  state_->isCancelled = true;
  arm(state_);
}

// Sets the alarm for the state's next expiration. Called with the mutex held.
void LinuxDispatchTimer::arm(const std::shared_ptr<State>& state) {
  ++state->arming;
  if (const auto alarm = std::exchange(state->alarm, std::nullopt)) {
    state->service.cancel(*alarm);
  }
  if (!state->isScheduled || !state->isResumed || state->isCancelled) {
    return;
  }
  state->alarm =
      state->service.set(coalesced(state->nextExpiration, state->leeway),
                         [weakState = std::weak_ptr<State>(state), arming = state->arming] {
                           if (const auto strongState = weakState.lock()) {
                             expire(strongState, arming);
                           }
                         });
}

void LinuxDispatchTimer::expire(const std::shared_ptr<State>& state, unsigned arming) {
  const std::lock_guard lock(state->mutex);
  if (arming != state->arming) {
    return;
  }
  if (!std::exchange(state->isHandlerWaiting, true)) {
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
  // Missed expirations are merged into this one.
  const auto missed = (Clock::now() - state->nextExpiration) / *state->interval;
  state->nextExpiration = later(state->nextExpiration, *state->interval * (missed + 1));
  arm(state);
}

void LinuxDispatchTimer::runHandler(State& state) {
  std::shared_ptr<const Handler> handler;
  {
    const std::lock_guard lock(state.mutex);
    state.isHandlerWaiting = false;
    if (state.isCancelled) {
      return;
    }
    // The handler may replace itself or destroy the timer.
    handler = state.handler;
  }
  if (handler) {
    (*handler)();
  }
}

}  // namespace ostravel::linuxplatform
