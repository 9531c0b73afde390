#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "Platform/Interface/DispatchQueue.h"
#include "Platform/Linux/Services/WorkerPool.h"

namespace ostravel::linuxplatform {

// A queue that shares the pool's threads with all other queues. Small enough for every tunnel to
// have its own: less than 100 bytes until its first item, and 200 more from then on.
//
// A sync item runs on the calling thread, without any lock or system call unless it has to wait. A
// caller that waits runs the items ahead of its own itself, unless another thread is already doing
// so; a busy pool can therefore not delay it. A waiting barrier is never overtaken, not even by a
// sync item.
class LinuxDispatchQueue final : public platform::DispatchQueue {
 public:
  // The pool outlives the queue and all of its items. There should be few different labels: each is
  // kept until the process ends.
  LinuxDispatchQueue(WorkerPool& pool, std::string label, platform::DispatchQueueKind kind);
  ~LinuxDispatchQueue() override;

  const std::string& label() const override { return label_; }
  // Items submitted on an event loop then run there, after the loop's current task; see LocalTurns.
  void itemsNeverBlock() override;
  void async(Work work) override;
  void asyncBarrier(Work work) override;

 protected:
  void runSync(const Work& work) override;
  void runSyncBarrier(const Work& work) override;

 private:
  // What may run at the same time as an item. On a serial queue every item is exclusive.
  enum class Access { shared, exclusive };
  struct Entry;
  struct Waiter;
  class EntryList;
  class State;

  State& state();

  WorkerPool& pool_;
  const std::string& label_;
  const Access usualAccess_;
  bool neverBlocks_ = false;
  std::atomic<bool> hasState_ = false;
  // Made for the first item, and shared with the pool while items are left.
  std::shared_ptr<State> state_;
};

}  // namespace ostravel::linuxplatform
