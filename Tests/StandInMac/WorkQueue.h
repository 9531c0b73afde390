#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace ostravel::standin {

// The order of a Dispatch queue: what may begin when. Held by std::shared_ptr, also by every item
// that waits or runs. Usable from any thread. Asynchronous work runs where the executor runs it, by
// default on a thread of the pool.
class WorkQueue : public std::enable_shared_from_this<WorkQueue> {
 public:
  enum class Kind { serial, concurrent };
  enum class Manner { plain, barrier };

  using Executor = void (*)(std::function<void()> work);

  explicit WorkQueue(Kind kind);
  WorkQueue(Kind kind, Executor executor) : kind_(kind), executor_(executor) {}

  void async(Manner manner, std::function<void()> work);
  // The work runs on the calling thread.
  void sync(Manner manner, const std::function<void()>& work);

 private:
  struct Item {
    bool isAlone;
    // Called when it is the item's turn; must return quickly.
    std::function<void()> begin;
  };

  void submit(Manner manner, std::function<void()> begin);
  void finish();
  // Starts everything that may start. Expects the lock to be held.
  void advance();

  const Kind kind_;
  const Executor executor_;
  std::mutex lock_;
  std::deque<Item> waiting_;
  std::size_t running_ = 0;
  bool isRunningAlone_ = false;
};

}  // namespace ostravel::standin
