#include "Platform/Linux/WorkerPool.h"

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
  {
    const std::lock_guard lock(mutex_);
    clients_.push_back(std::move(client));
  }
  wakeUp_.notify_one();
}

void WorkerPool::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    wakeUp_.wait(lock, [this] { return !clients_.empty() || isEnding_; });
    if (clients_.empty()) {
      return;
    }
    std::shared_ptr<Client> client = std::move(clients_.front());
    clients_.pop_front();
    lock.unlock();
    client->takeTurn();
    client.reset();
    lock.lock();
  }
}

void WorkerPool::itemFinished() {
  // The last one either sees the drain, or is seen by it.
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
