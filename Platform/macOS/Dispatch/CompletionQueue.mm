#import "Platform/macOS/Dispatch/CompletionQueue.h"

#include <utility>

namespace ostravel::macos {

namespace {

thread_local CompletionQueue* currentQueue = nullptr;

}  // namespace

std::shared_ptr<CompletionQueue> CompletionQueue::current() {
  return currentQueue != nullptr ? currentQueue->shared_from_this()
                                 : std::make_shared<CompletionQueue>();
}

void CompletionQueue::run(std::function<void()> completion) {
  std::call_once(isMade_, [this] {
    queue_.emplace("com.ostravel.completions", platform::DispatchQueueKind::serial,
                   dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0));
  });
  queue_->async([self = shared_from_this(), completion = std::move(completion)] {
    currentQueue = self.get();
    completion();
    currentQueue = nullptr;
  });
}

}  // namespace ostravel::macos
