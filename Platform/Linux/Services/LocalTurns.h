#pragma once

#include <memory>

#include "Platform/Linux/Services/WorkerPool.h"

namespace ostravel::linuxplatform {

// A thread that runs the queues whose items never block after its current task, instead of waking a
// thread of the pool for each of them. Implemented by event loops.
class LocalTurns {
 public:
  LocalTurns() = default;
  LocalTurns(const LocalTurns&) = delete;
  LocalTurns& operator=(const LocalTurns&) = delete;
  virtual ~LocalTurns() = default;

  // The calling thread's; null if it has none.
  static LocalTurns* current() { return current_; }

  // Gives the client a turn later on this thread, in the order of the calls, or on the pool if this
  // thread ends before. Called on this thread.
  virtual void giveTurn(WorkerPool& pool, std::shared_ptr<WorkerPool::Client> client) = 0;

 protected:
  // Called by the thread that implements it when it begins, and with null when it ends.
  static void setCurrent(LocalTurns* turns) { current_ = turns; }

 private:
  static inline thread_local LocalTurns* current_ = nullptr;
};

}  // namespace ostravel::linuxplatform
