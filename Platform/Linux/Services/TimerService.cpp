#include "Platform/Linux/Services/TimerService.h"

#include <pthread.h>

namespace ostravel::linuxplatform {

TimerService::TimerService() : thread_([this] { run(); }) {
  ::pthread_setname_np(thread_.native_handle(), "ostravel-timer");
}

TimerService::~TimerService() {
  stop();
}

void TimerService::stop() {
  if (!thread_.joinable()) {
    return;
  }
  {
    const std::lock_guard lock(mutex_);
    isStopping_ = true;
  }
  wakeUp_.notify_one();
  thread_.join();
}

TimerService::Alarm TimerService::set(Clock::time_point time, std::function<void()> expire) {
  Alarm alarm;
  bool isNext = false;
  {
    const std::lock_guard lock(mutex_);
    alarm = {time, ++lastNumber_};
    alarms_.emplace(alarm, std::move(expire));
    isNext = time < sleepsUntil_;
  }
  if (isNext) {
    wakeUp_.notify_one();
  }
  return alarm;
}

void TimerService::cancel(const Alarm& alarm) {
  // Destroys the alarm's function without the lock.
  decltype(alarms_)::node_type taken;
  const std::lock_guard lock(mutex_);
  taken = alarms_.extract(alarm);
}

void TimerService::run() {
  std::unique_lock lock(mutex_);
  while (!isStopping_) {
    if (alarms_.empty() || alarms_.begin()->first.first > Clock::now()) {
      waitForNext(lock);
      continue;
    }
    auto due = alarms_.extract(alarms_.begin());
    lock.unlock();
    due.mapped()();
    due = {};
    lock.lock();
  }
}

void TimerService::waitForNext(std::unique_lock<std::mutex>& lock) {
  if (alarms_.empty()) {
    sleepsUntil_ = Clock::time_point::max();
    wakeUp_.wait(lock);
  } else {
    sleepsUntil_ = alarms_.begin()->first.first;
    wakeUp_.wait_until(lock, sleepsUntil_);
  }
  // The thread is awake and about to check the alarms.
  sleepsUntil_ = Clock::time_point::min();
}

}  // namespace ostravel::linuxplatform
