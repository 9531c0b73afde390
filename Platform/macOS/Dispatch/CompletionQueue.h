#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#import "Platform/macOS/Dispatch/SystemDispatchQueue.h"

namespace ostravel::macos {

// Where the completions of one flow and of the connection made for it run, one after the other. The
// system says about its own completions only that they run on an internal thread. Held by
// std::shared_ptr, also by every completion that waits.
//
// The queue of Dispatch is made for the first completion: most flows bypass the proxy and have
// none. All queues share the threads of a global one, of which there are few; a serial queue
// without a target gets a thread whenever it has work.
class CompletionQueue : public std::enable_shared_from_this<CompletionQueue> {
 public:
  // The queue of the completion that the caller is part of, or else a new one. A provider makes a
  // connection in the completion of its flow's open, and so the two share a queue.
  static std::shared_ptr<CompletionQueue> current();

  void run(std::function<void()> completion);

 private:
  std::once_flag isMade_;
  std::optional<SystemDispatchQueue> queue_;
};

}  // namespace ostravel::macos
