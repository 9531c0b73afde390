#pragma once

#include <dispatch/dispatch.h>

#include <string>

#include "Platform/Interface/DispatchQueue.h"
#import "Platform/macOS/Foundation/Reference.h"

namespace ostravel::macos {

// A queue of Dispatch, which keeps queues alive while items are waiting.
class SystemDispatchQueue final : public platform::DispatchQueue {
 public:
  SystemDispatchQueue(std::string label, platform::DispatchQueueKind kind);
  // Runs its items on the threads of the target.
  SystemDispatchQueue(std::string label, platform::DispatchQueueKind kind, dispatch_queue_t target);

  dispatch_queue_t handle() const { return queue_.get(); }

  const std::string& label() const override { return label_; }
  void async(Work work) override;
  void asyncBarrier(Work work) override;

 protected:
  void runSync(const Work& work) override;
  void runSyncBarrier(const Work& work) override;

 private:
  const std::string label_;
  const Reference<dispatch_queue_t> queue_;
};

}  // namespace ostravel::macos
