#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#import "Platform/macOS/Dispatch/SystemDispatchQueue.h"

namespace ostravel::macos {

// Runs the completions of one flow and of the connection made for it, one after the other. The
// system only documents that its own completions run on an internal thread. Held by
// std::shared_ptr, also by every pending completion.
//
// Its Dispatch queue is created for the first completion: most flows bypass the proxy and have
// none. All queues share the few threads of a global one; a serial queue without a target would get
// a thread whenever it has work.
class CompletionQueue : public std::enable_shared_from_this<CompletionQueue> {
 public:
  // The queue of the completion that is running, otherwise a new one. A provider creates a
  // connection in the completion of its flow's open, so the two share a queue.
  static std::shared_ptr<CompletionQueue> current();

  void run(std::function<void()> completion);

 private:
  std::once_flag isMade_;
  std::optional<SystemDispatchQueue> queue_;
};

}  // namespace ostravel::macos
