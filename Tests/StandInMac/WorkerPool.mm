#import "Tests/StandInMac/WorkerPool.h"

#import <Foundation/Foundation.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <list>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace ostravel::standin {

namespace {

class WorkerPool {
 public:
  // Returns when the threads have ended. Later work is not run.
  void end() {
    {
      const std::lock_guard guard(lock_);
      isEnding_ = true;
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) {
      thread.join();
    }
  }

  void run(std::function<void()> work) {
    {
      const std::lock_guard guard(lock_);
      waiting_.push_back(std::move(work));
      // Work may wait for other work, so no item may wait for a thread. At the end of the process
      // there are no more such waits, and the remaining threads do the remaining work.
      if (waiting_.size() > idle_ && !isEnding_) {
        ++idle_;
        threads_.emplace_back([this] { runThread(); });
      }
    }
    changed_.notify_all();
  }

  bool poll(std::span<pollfd> entries, int timeout) {
    std::unique_lock guard(lock_);
    const auto place = polls_.insert(polls_.end(), {entries.begin(), entries.end()});
    guard.unlock();
    int ready = -1;
    while (ready < 0) {
      ready = ::poll(entries.data(), entries.size(), timeout);
    }
    guard.lock();
    polls_.erase(place);
    return ready > 0;
  }

  bool isSettled() {
    const std::lock_guard guard(lock_);
    if (!waiting_.empty() || busy_ != polls_.size()) {
      return false;
    }
    return std::none_of(polls_.begin(), polls_.end(), [](std::vector<pollfd>& entries) {
      return ::poll(entries.data(), entries.size(), 0) > 0;
    });
  }

 private:
  void runThread() {
    {
      const std::lock_guard registering(registration_);
      GSRegisterCurrentThread();
    }
    std::unique_lock guard(lock_);
    while (true) {
      changed_.wait(guard, [this] { return isEnding_ || !waiting_.empty(); });
      if (waiting_.empty()) {
        break;
      }
      auto work = std::move(waiting_.front());
      waiting_.pop_front();
      --idle_;
      ++busy_;
      guard.unlock();
      @autoreleasepool {
        work();
        work = nullptr;
      }
      guard.lock();
      --busy_;
      ++idle_;
      changed_.notify_all();
    }
    guard.unlock();
    const std::lock_guard registering(registration_);
    GSUnregisterCurrentThread();
  }

  // Threads that start and end send first messages to classes, which the runtime here cannot handle
  // on two threads at once.
  std::mutex registration_;
  std::mutex lock_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> waiting_;
  // Threads that are, or are about to be, waiting for work.
  std::size_t idle_ = 0;
  std::size_t busy_ = 0;
  // The descriptors that the busy ones wait for.
  std::list<std::vector<pollfd>> polls_;
  bool isEnding_ = false;
  std::vector<std::thread> threads_;
};

// Never destroyed: timers and queues may still need it when its threads have ended.
WorkerPool& workerPool() {
  struct End {
    WorkerPool& pool;
    ~End() { pool.end(); }
  };
  static WorkerPool& pool = *new WorkerPool();
  static const End end{pool};
  return pool;
}

}  // namespace

void runOnWorker(std::function<void()> work) {
  workerPool().run(std::move(work));
}

bool pollOnWorker(std::span<pollfd> entries, std::optional<std::chrono::milliseconds> timeout) {
  constexpr int kForEver = -1;
  return workerPool().poll(entries, timeout ? static_cast<int>(timeout->count()) : kForEver);
}

void settleWorkers() {
  while (!workerPool().isSettled()) {
    std::this_thread::yield();
  }
}

}  // namespace ostravel::standin
