#pragma once

#include <dispatch/dispatch.h>

#include "Platform/Interface/DispatchTimer.h"
#import "Platform/macOS/Foundation/Reference.h"

namespace ostravel::macos {

// A timer source of Dispatch. The source keeps the handler, so that an expiration under way
// outlives this object safely.
class SystemDispatchTimer final : public platform::DispatchTimer {
 public:
  explicit SystemDispatchTimer(dispatch_queue_t queue);
  ~SystemDispatchTimer() override;

  void setEventHandler(Handler handler) override;
  void schedule(std::chrono::nanoseconds delay, std::optional<std::chrono::nanoseconds> interval,
                std::chrono::nanoseconds leeway) override;
  void resume() override;
  void cancel() override;

 private:
  // Guards and holds the handler; the context of the source, which deletes it with itself.
  class HandlerSlot;

  HandlerSlot* const slot_;
  const Reference<dispatch_source_t> source_;
};

}  // namespace ostravel::macos
