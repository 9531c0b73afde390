// Dispatch over real threads, and the run loop of the main thread.

#include <CoreFoundation/CoreFoundation.h>
#include <dispatch/dispatch.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>

#import "Platform/macOS/Foundation/Reference.h"
#include "Tests/StandInMac/MainThread.h"
#include "Tests/StandInMac/TimerState.h"
#include "Tests/StandInMac/WorkQueue.h"

using ostravel::macos::Reference;
using ostravel::standin::TimerState;
using ostravel::standin::WorkQueue;

@interface StandInQueue : NSObject <OS_dispatch_queue> {
 @public
  std::shared_ptr<WorkQueue> _queue;
}
@end
@implementation StandInQueue
@end

// The only object of this class is the main queue: never created, never released.
@interface StandInMainQueue : NSObject <OS_dispatch_queue>
@end

@interface StandInTimerSource : NSObject <OS_dispatch_source> {
 @public
  std::shared_ptr<TimerState> _timer;
}
@end

namespace {

// As the library does when its rules are broken.
[[noreturn]] void crash(const char* reason) {
  std::fprintf(stderr, "BUG IN CLIENT OF DISPATCH: %s\n", reason);
  std::abort();
}

const std::shared_ptr<WorkQueue>& queueOf(dispatch_queue_t queue) {
  static const auto& mainQueue = *new std::shared_ptr<WorkQueue>(
      std::make_shared<WorkQueue>(WorkQueue::Kind::serial, ostravel::standin::runOnMainThread));
  return queue == dispatch_get_main_queue() ? mainQueue : static_cast<StandInQueue*>(queue)->_queue;
}

TimerState& timerOf(dispatch_object_t source) {
  return *static_cast<StandInTimerSource*>(source)->_timer;
}

TimerState::Time timeOf(dispatch_time_t time) {
  return TimerState::Time(std::chrono::nanoseconds(time));
}

// How many times faster than real time delayed work runs, so that tests need not wait for long
// delays.
std::int64_t speed() {
  const char* const text = std::getenv("STANDIN_SPEED");
  return text != nullptr ? std::atoll(text) : 1;
}

struct DelayedWork {
  std::shared_ptr<TimerState> timer;
  void* context;
  dispatch_function_t work;
};

void runDelayedWork(void* context) {
  const std::unique_ptr<const DelayedWork> delayed(static_cast<DelayedWork*>(context));
  delayed->work(delayed->context);
}

}  // namespace

@implementation StandInTimerSource
- (void)dealloc {
  if (!_timer->isActive()) {
    crash("release of an inactive object");
  }
  [super dealloc];
}
@end

struct dispatch_queue_s {
  Class type;
};
struct dispatch_queue_attr_s {
  char unused;
};
struct dispatch_source_type_s {
  char unused;
};

@implementation StandInMainQueue
+ (void)load {
  _dispatch_main_q.type = self;
}
- (id)retain {
  return self;
}
- (oneway void)release {
}
- (id)autorelease {
  return self;
}
@end

extern "C" {

struct dispatch_queue_s _dispatch_main_q;
struct dispatch_queue_attr_s _dispatch_queue_attr_concurrent;
const struct dispatch_source_type_s _dispatch_source_type_timer {};

dispatch_queue_t dispatch_queue_create(const char* /*label*/, dispatch_queue_attr_t attr) {
  StandInQueue* const queue = [[StandInQueue alloc] init];
  queue->_queue = std::make_shared<WorkQueue>(
      attr == DISPATCH_QUEUE_CONCURRENT ? WorkQueue::Kind::concurrent : WorkQueue::Kind::serial);
  return queue;
}

dispatch_queue_t dispatch_get_global_queue(std::intptr_t /*identifier*/, std::uintptr_t flags) {
  if (flags != 0) {
    crash("flags of a global queue");
  }
  static const dispatch_queue_t queue = dispatch_queue_create("global", DISPATCH_QUEUE_CONCURRENT);
  return queue;
}

// All queues share the workers here, whatever their target queue.
dispatch_queue_t dispatch_queue_create_with_target(const char* label, dispatch_queue_attr_t attr,
                                                   dispatch_queue_t target) {
  if (target != nil && target != dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0)) {
    crash("a target that the stand-in does not know");
  }
  return dispatch_queue_create(label, attr);
}

void dispatch_async(dispatch_queue_t queue, dispatch_block_t block) {
  queueOf(queue)->async(WorkQueue::Manner::plain,
                        [held = Reference<dispatch_block_t>::retaining(block)] { held.get()(); });
}

void dispatch_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
  queueOf(queue)->async(WorkQueue::Manner::plain, [context, work] { work(context); });
}

void dispatch_sync_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
  queueOf(queue)->sync(WorkQueue::Manner::plain, [context, work] { work(context); });
}

void dispatch_barrier_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
  queueOf(queue)->async(WorkQueue::Manner::barrier, [context, work] { work(context); });
}

void dispatch_barrier_sync_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
  queueOf(queue)->sync(WorkQueue::Manner::barrier, [context, work] { work(context); });
}

void dispatch_after_f(dispatch_time_t when, dispatch_queue_t queue, void* context,
                      dispatch_function_t work) {
  const auto now = std::chrono::steady_clock::now();
  const auto timer = std::make_shared<TimerState>(queueOf(queue));
  timer->setContext(new DelayedWork{timer, context, work});
  timer->setHandler(runDelayedWork);
  timer->setTimer(now + (timeOf(when) - now) / speed(), std::nullopt);
  timer->activate();
}

void dispatch_main() {
  ostravel::standin::handOverMainThread();
}

void CFRunLoopRun() {
  ostravel::standin::handOverMainThread();
}

dispatch_source_t dispatch_source_create(dispatch_source_type_t type, std::uintptr_t handle,
                                         std::uintptr_t mask, dispatch_queue_t queue) {
  if (type != DISPATCH_SOURCE_TYPE_TIMER || handle != 0 || mask != 0) {
    crash("not a timer source");
  }
  StandInTimerSource* const source = [[StandInTimerSource alloc] init];
  source->_timer = std::make_shared<TimerState>(queueOf(queue));
  return source;
}

void dispatch_source_set_timer(dispatch_source_t source, dispatch_time_t start,
                               std::uint64_t interval, std::uint64_t /*leeway*/) {
  const auto time = start == DISPATCH_TIME_FOREVER ? std::nullopt : std::optional(timeOf(start));
  timerOf(source).setTimer(
      time, interval == DISPATCH_TIME_FOREVER
                ? std::nullopt
                : std::optional(std::chrono::nanoseconds(static_cast<std::int64_t>(interval))));
}

void dispatch_source_set_event_handler_f(dispatch_source_t source, dispatch_function_t handler) {
  timerOf(source).setHandler(handler);
}

void dispatch_source_cancel(dispatch_source_t source) {
  timerOf(source).cancel();
}

std::intptr_t dispatch_source_testcancel(dispatch_source_t source) {
  return timerOf(source).isCancelled() ? 1 : 0;
}

void dispatch_resume(dispatch_object_t object) {
  if (!timerOf(object).activate()) {
    crash("resume of an object that is not suspended");
  }
}

void dispatch_activate(dispatch_object_t object) {
  timerOf(object).activate();
}

void dispatch_set_context(dispatch_object_t object, void* context) {
  timerOf(object).setContext(context);
}

void* dispatch_get_context(dispatch_object_t object) {
  return timerOf(object).context();
}

void dispatch_set_finalizer_f(dispatch_object_t object, dispatch_function_t finalizer) {
  timerOf(object).setFinalizer(finalizer);
}

dispatch_time_t dispatch_time(dispatch_time_t when, std::int64_t delta) {
  const auto base = when == DISPATCH_TIME_NOW
                        ? std::chrono::steady_clock::now().time_since_epoch().count()
                        : static_cast<std::int64_t>(when);
  std::int64_t time = 0;
  if (__builtin_add_overflow(base, delta, &time)) {
    return DISPATCH_TIME_FOREVER;
  }
  return static_cast<dispatch_time_t>(time);
}

}  // extern "C"
