#pragma once

#include <functional>
#include <string>
#include <utility>

namespace ostravel::platform {

enum class DispatchQueueKind {
  // Items run one after the other, in the order in which they were submitted.
  serial,
  // Items may run side by side; a barrier item waits for all before it and runs alone.
  concurrent,
};

// Runs work items. Cheap enough that every tunnel owns one; a queue does not own a thread.
// A queue may be destroyed while items are waiting: they still run.
class DispatchQueue {
 public:
  using Work = std::function<void()>;

  DispatchQueue() = default;
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;
  virtual ~DispatchQueue() = default;

  virtual const std::string& label() const = 0;

  // Promises that every item is short and never blocks. A platform may then run them on a thread
  // that must not wait; the order is kept. Called before the first item.
  virtual void itemsNeverBlock() {}

  // Returns at once; the item runs later on a thread of the platform.
  virtual void async(Work work) = 0;
  virtual void asyncBarrier(Work work) = 0;

  // Return after the item has run. Calling one from an item of the same queue is a programming
  // error (on a serial queue it never returns). The item is not copied.
  template <typename Item>
  void sync(Item&& item) {
    runSync(std::ref(item));
  }
  template <typename Item>
  void syncBarrier(Item&& item) {
    runSyncBarrier(std::ref(item));
  }

 protected:
  virtual void runSync(const Work& work) = 0;
  virtual void runSyncBarrier(const Work& work) = 0;
};

}  // namespace ostravel::platform
