#import "Platform/macOS/Dispatch/SystemDispatchQueue.h"

#include <memory>
#include <utility>

namespace ostravel::macos {

namespace {

using Work = platform::DispatchQueue::Work;

// Each item runs inside an autorelease pool: autoreleased objects must not wait until the thread of
// Dispatch is idle.
void runOwned(void* context) {
  const std::unique_ptr<Work> work(static_cast<Work*>(context));
  @autoreleasepool {
    (*work)();
  }
}

void runBorrowed(void* context) {
  @autoreleasepool {
    (*static_cast<const Work*>(context))();
  }
}

void* contextOf(Work work) {
  return std::make_unique<Work>(std::move(work)).release();
}

void* contextOf(const Work* work) {
  return const_cast<Work*>(work);
}

dispatch_queue_attr_t attributeOf(platform::DispatchQueueKind kind) {
  return kind == platform::DispatchQueueKind::concurrent ? DISPATCH_QUEUE_CONCURRENT
                                                         : DISPATCH_QUEUE_SERIAL;
}

}  // namespace

SystemDispatchQueue::SystemDispatchQueue(std::string label, platform::DispatchQueueKind kind)
    : label_(std::move(label)),
      queue_(Reference<dispatch_queue_t>::adopting(
          dispatch_queue_create(label_.c_str(), attributeOf(kind)))) {}

SystemDispatchQueue::SystemDispatchQueue(std::string label, platform::DispatchQueueKind kind,
                                         dispatch_queue_t target)
    : label_(std::move(label)),
      queue_(Reference<dispatch_queue_t>::adopting(
          dispatch_queue_create_with_target(label_.c_str(), attributeOf(kind), target))) {}

void SystemDispatchQueue::async(Work work) {
  dispatch_async_f(handle(), contextOf(std::move(work)), runOwned);
}

void SystemDispatchQueue::asyncBarrier(Work work) {
  dispatch_barrier_async_f(handle(), contextOf(std::move(work)), runOwned);
}

void SystemDispatchQueue::runSync(const Work& work) {
  dispatch_sync_f(handle(), contextOf(&work), runBorrowed);
}

void SystemDispatchQueue::runSyncBarrier(const Work& work) {
  dispatch_barrier_sync_f(handle(), contextOf(&work), runBorrowed);
}

}  // namespace ostravel::macos
