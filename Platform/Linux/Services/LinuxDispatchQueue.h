#pragma once

#include <memory>
#include <string>

#include "Platform/Interface/DispatchQueue.h"
#include "Platform/Linux/Services/WorkerPool.h"

namespace ostravel::linuxplatform {

// A queue that shares the threads of the pool with all other queues. Small enough that every tunnel
// owns one: about 300 bytes with everything that belongs to it.
//
// A sync item runs on the calling thread, without any lock or system call when nothing that it has
// to wait for is there. A caller that has to wait runs what must run before its item by itself,
// when no other thread is doing so already; therefore nothing that the pool is busy with can hold
// it up. A barrier that waits is never overtaken, not even by a sync item.
class LinuxDispatchQueue final : public platform::DispatchQueue {
 public:
  // The pool outlives the queue and all of its items.
  LinuxDispatchQueue(WorkerPool& pool, std::string label, platform::DispatchQueueKind kind);
  ~LinuxDispatchQueue() override;

  const std::string& label() const override { return label_; }
  void async(Work work) override;
  void asyncBarrier(Work work) override;

 protected:
  void runSync(const Work& work) override;
  void runSyncBarrier(const Work& work) override;

 private:
  // What an item excludes while it runs. On a serial queue every item is exclusive.
  enum class Access { shared, exclusive };
  struct Entry;
  struct Waiter;
  class EntryList;
  class State;

  const std::string label_;
  const Access usualAccess_;
  // Shared with the pool as long as items are left.
  const std::shared_ptr<State> state_;
};

}  // namespace ostravel::linuxplatform
