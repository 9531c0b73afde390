#pragma once

#include <functional>
#include <memory>

#import "Platform/macOS/Dispatch/SystemDispatchQueue.h"

namespace ostravel::macos {

// Where the completions of one flow and of the connection made for it run, one after the other. The
// system says about its own completions only that they run on threads of its own. Held by
// std::shared_ptr, also by every completion that waits.
class CompletionQueue : public std::enable_shared_from_this<CompletionQueue> {
 public:
  CompletionQueue();

  // The queue of the completion that the caller is part of, or else a new one. A provider makes a
  // connection in the completion of its flow's open, and so the two share a queue.
  static std::shared_ptr<CompletionQueue> current();

  void run(std::function<void()> completion);

 private:
  SystemDispatchQueue queue_;
};

}  // namespace ostravel::macos
