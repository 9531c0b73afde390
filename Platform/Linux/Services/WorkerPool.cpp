#include "Platform/Linux/Services/WorkerPool.h"

#include <pthread.h>

#include <utility>

namespace ostravel::linuxplatform {

WorkerPool::WorkerPool() {
  threads_.reserve(kThreads);
  try {
    for (std::size_t i = 0; i < kThreads; ++i) {
      threads_.emplace_back([this] { run(); });
      ::pthread_setname_np(threads_.back().native_handle(), "ostravel-work");
    }
  } catch (...) {
    endThreads();
    throw;
  }
}

WorkerPool::~WorkerPool() {
  endThreads();
}

void WorkerPool::endThreads() {
  {
    const std::lock_guard lock(mutex_);
    isEnding_ = true;
  }
  wakeUp_.notify_all();
  for (std::thread& thread : threads_) {
    thread.join();
  }
}

void WorkerPool::submit(std::shared_ptr<Client> client) {
  bool isCallNeeded = false;
  {
    const std::lock_guard lock(mutex_);
    clients_.push_back(std::move(client));
    isCallNeeded = callOne();
  }
  if (isCallNeeded) {
    wakeUp_.notify_one();
  }
}

// True if a thread has to be woken for the first client. Called with the lock held.
bool WorkerPool::callOne() {
  return sleepingThreads_ > 0 && !std::exchange(isThreadCalled_, true);
}

void WorkerPool::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    while (clients_.empty() && !isEnding_) {
      ++sleepingThreads_;
      wakeUp_.wait(lock);
      --sleepingThreads_;
      isThreadCalled_ = false;
    }
    if (clients_.empty()) {
      return;
    }
    std::shared_ptr<Client> client = std::move(clients_.front());
    clients_.pop_front();
    // Calls another thread for clients that were submitted while this one was waking up: its turn
    // may be long.
    const bool isCallNeeded = !clients_.empty() && callOne();
    lock.unlock();
    if (isCallNeeded) {
      wakeUp_.notify_one();
    }
    client->takeTurn();
    client.reset();
    lock.lock();
  }
}

void WorkerPool::itemFinished() {
  // Sequentially consistent: either the last item sees that a drain is waiting, or the drain sees
  // that no item is left.
  if (--unfinishedItems_ == 0 && isDraining_) {
    const std::lock_guard lock(mutex_);
    drained_.notify_all();
  }
}

bool WorkerPool::drain(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock lock(mutex_);
  isDraining_ = true;
  return drained_.wait_until(lock, deadline, [this] { return unfinishedItems_ == 0; });
}

}  // namespace ostravel::linuxplatform
