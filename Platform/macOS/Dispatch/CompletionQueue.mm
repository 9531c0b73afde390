#import "Platform/macOS/Dispatch/CompletionQueue.h"

#include <utility>

namespace ostravel::macos {

namespace {

thread_local CompletionQueue* currentQueue = nullptr;

}  // namespace

CompletionQueue::CompletionQueue()
    : queue_("com.ostravel.completions", platform::DispatchQueueKind::serial) {}

std::shared_ptr<CompletionQueue> CompletionQueue::current() {
  return currentQueue != nullptr ? currentQueue->shared_from_this()
                                 : std::make_shared<CompletionQueue>();
}

void CompletionQueue::run(std::function<void()> completion) {
  queue_.async([self = shared_from_this(), completion = std::move(completion)] {
    currentQueue = self.get();
    completion();
    currentQueue = nullptr;
  });
}

}  // namespace ostravel::macos
