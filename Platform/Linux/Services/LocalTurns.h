#pragma once

#include <memory>

#include "Platform/Linux/Services/WorkerPool.h"

namespace ostravel::linuxplatform {

// A thread that gives the queues whose items never block their turns itself, after what it is doing
// now, instead of waking a thread of the pool for each of them. Implemented by event loops.
class LocalTurns {
 public:
  LocalTurns() = default;
  LocalTurns(const LocalTurns&) = delete;
  LocalTurns& operator=(const LocalTurns&) = delete;
  virtual ~LocalTurns() = default;

  // That of the calling thread; null if it has none.
  static LocalTurns* current() { return current_; }

  // Gives the client a turn later on this thread, in the order of the calls, or on the pool's if
  // this thread ends before. Called on this thread.
  virtual void giveTurn(WorkerPool& pool, std::shared_ptr<WorkerPool::Client> client) = 0;

 protected:
  // For the thread that runs it, at its begin, and with null at its end.
  static void setCurrent(LocalTurns* turns) { current_ = turns; }

 private:
  static inline thread_local LocalTurns* current_ = nullptr;
};

}  // namespace ostravel::linuxplatform
