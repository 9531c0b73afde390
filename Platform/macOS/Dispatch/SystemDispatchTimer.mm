#import "Platform/macOS/Dispatch/SystemDispatchTimer.h"

#include <memory>
#include <mutex>
#include <utility>

#include "Base/ProgrammingError.h"

namespace ostravel::macos {

class SystemDispatchTimer::HandlerSlot {
 public:
  void set(Handler handler) {
    auto replacement = std::make_shared<const Handler>(std::move(handler));
    const std::lock_guard guard(lock_);
    // The old handler is destroyed with replacement, after the lock: its destructor may call us.
    handler_.swap(replacement);
  }

  // Dispatch passes its context as a plain pointer.
  static void run(void* context) {
    @autoreleasepool {
      if (const auto handler = static_cast<HandlerSlot*>(context)->current()) {
        (*handler)();
      }
    }
  }
  static void destroy(void* context) {
    const std::unique_ptr<HandlerSlot> slot(static_cast<HandlerSlot*>(context));
  }

 private:
  std::shared_ptr<const Handler> current() {
    const std::lock_guard guard(lock_);
    return handler_;
  }

  std::mutex lock_;
  std::shared_ptr<const Handler> handler_;
};

SystemDispatchTimer::SystemDispatchTimer(dispatch_queue_t queue)
    : slot_(std::make_unique<HandlerSlot>().release()),
      source_(Reference<dispatch_source_t>::adopting(
          dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue))) {
  // The context first: setting the handler remembers the context of that moment.
  dispatch_set_context(source_.get(), slot_);
  dispatch_set_finalizer_f(source_.get(), HandlerSlot::destroy);
  dispatch_source_set_event_handler_f(source_.get(), HandlerSlot::run);
}

SystemDispatchTimer::~SystemDispatchTimer() {
  cancel();
  // A source must not be released before it was activated; as it is cancelled, it does not fire.
  resume();
}

void SystemDispatchTimer::setEventHandler(Handler handler) {
  slot_->set(std::move(handler));
}

void SystemDispatchTimer::schedule(std::chrono::nanoseconds delay,
                                   std::optional<std::chrono::nanoseconds> interval,
                                   std::chrono::nanoseconds leeway) {
  if (interval && *interval <= std::chrono::nanoseconds::zero()) {
    programmingError("the interval of a repeating timer is not positive");
  }
  dispatch_source_set_timer(
      source_.get(), dispatch_time(DISPATCH_TIME_NOW, delay.count()),
      interval ? static_cast<std::uint64_t>(interval->count()) : DISPATCH_TIME_FOREVER,
      static_cast<std::uint64_t>(leeway.count()));
}

void SystemDispatchTimer::resume() {
  // Unlike dispatch_resume, activating may be repeated.
  dispatch_activate(source_.get());
}

void SystemDispatchTimer::cancel() {
  dispatch_source_cancel(source_.get());
}

}  // namespace ostravel::macos
