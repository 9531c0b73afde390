#include "Tests/StandInMac/TimerState.h"

#include <condition_variable>
#include <map>
#include <thread>
#include <utility>

namespace ostravel::standin {

namespace {

// One thread that waits for the next deadline of all timers.
class Deadlines {
 public:
  Deadlines() : thread_([this] { run(); }) {}
  // Returns when the thread has ended. No deadline is served later.
  void end() {
    {
      const std::lock_guard guard(lock_);
      isEnding_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }

  std::uint64_t add(TimerState::Time due, std::weak_ptr<TimerState> timer) {
    std::uint64_t number = 0;
    {
      const std::lock_guard guard(lock_);
      number = ++lastNumber_;
      deadlines_.emplace(due, Deadline{number, std::move(timer)});
    }
    changed_.notify_all();
    return number;
  }

  void remove(std::uint64_t number) {
    const std::lock_guard guard(lock_);
    std::erase_if(deadlines_, [number](const auto& item) { return item.second.number == number; });
  }

 private:
  struct Deadline {
    std::uint64_t number;
    std::weak_ptr<TimerState> timer;
  };

  void run() {
    std::unique_lock guard(lock_);
    while (!isEnding_) {
      if (deadlines_.empty()) {
        changed_.wait(guard);
        continue;
      }
      const auto first = deadlines_.begin();
      const auto due = first->first;
      if (std::chrono::steady_clock::now() < due) {
        changed_.wait_until(guard, due);
        continue;
      }
      const Deadline deadline = first->second;
      deadlines_.erase(first);
      guard.unlock();
      if (const auto timer = deadline.timer.lock()) {
        timer->expire(deadline.number);
      }
      guard.lock();
    }
  }

  std::mutex lock_;
  std::condition_variable changed_;
  std::multimap<TimerState::Time, Deadline> deadlines_;
  std::uint64_t lastNumber_ = 0;
  bool isEnding_ = false;
  std::thread thread_;
};

// Never destroyed: work that is still running may need it when its thread has ended.
Deadlines& allDeadlines() {
  struct End {
    Deadlines& deadlines;
    ~End() { deadlines.end(); }
  };
  static Deadlines& deadlines = *new Deadlines();
  static const End end{deadlines};
  return deadlines;
}

}  // namespace

TimerState::~TimerState() {
  if (finalizer_ != nullptr && context_ != nullptr) {
    finalizer_(context_);
  }
}

void TimerState::setContext(void* context) {
  const std::lock_guard guard(lock_);
  context_ = context;
}

void* TimerState::context() {
  const std::lock_guard guard(lock_);
  return context_;
}

void TimerState::setFinalizer(Function finalizer) {
  const std::lock_guard guard(lock_);
  finalizer_ = finalizer;
}

void TimerState::setHandler(Function handler) {
  const std::lock_guard guard(lock_);
  handler_ = handler;
  handlerContext_ = context_;
}

void TimerState::setTimer(std::optional<Time> start,
                          std::optional<std::chrono::nanoseconds> interval) {
  const std::lock_guard guard(lock_);
  if (isCancelled_) {
    return;
  }
  start_ = start;
  interval_ = interval;
  deadline_ = 0;
  if (isActive_ && start_) {
    setDeadline(*start_);
  }
}

bool TimerState::activate() {
  const std::lock_guard guard(lock_);
  if (isActive_) {
    return false;
  }
  isActive_ = true;
  if (start_ && !isCancelled_) {
    setDeadline(*start_);
  }
  return true;
}

bool TimerState::isActive() {
  const std::lock_guard guard(lock_);
  return isActive_;
}

void TimerState::cancel() {
  const std::lock_guard guard(lock_);
  isCancelled_ = true;
  allDeadlines().remove(std::exchange(deadline_, 0));
}

bool TimerState::isCancelled() {
  const std::lock_guard guard(lock_);
  return isCancelled_;
}

void TimerState::setDeadline(Time due) {
  deadline_ = allDeadlines().add(due, weak_from_this());
}

void TimerState::expire(std::uint64_t deadline) {
  const std::lock_guard guard(lock_);
  if (deadline != deadline_) {
    return;
  }
  deadline_ = 0;
  if (interval_) {
    // If it is late by more than one interval, it skips those that it has missed.
    const auto now = std::chrono::steady_clock::now();
    do {
      *start_ += *interval_;
    } while (*start_ < now);
    setDeadline(*start_);
  }
  if (!std::exchange(isPending_, true)) {
    queue_->async(WorkQueue::Manner::plain, [self = shared_from_this()] { self->runHandler(); });
  }
}

void TimerState::runHandler() {
  Function handler = nullptr;
  void* context = nullptr;
  {
    const std::lock_guard guard(lock_);
    isPending_ = false;
    if (isCancelled_) {
      return;
    }
    handler = handler_;
    context = handlerContext_;
  }
  if (handler != nullptr) {
    handler(context);
  }
}

}  // namespace ostravel::standin
