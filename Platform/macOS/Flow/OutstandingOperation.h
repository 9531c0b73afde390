#pragma once

#include <atomic>
#include <memory>
#include <utility>

#include "Base/ProgrammingError.h"

namespace ostravel::macos {

// Whether an operation of one kind is outstanding. A second one is a programming error, as on every
// platform; the system itself would only fail it. A member of the flow or connection; usable from
// any thread.
class OutstandingOperation {
 public:
  void begin(const char* misuse) {
    if (isOutstanding_.exchange(true)) {
      programmingError(misuse);
    }
  }
  void end() { isOutstanding_ = false; }

 private:
  std::atomic<bool> isOutstanding_ = false;
};

// A completion that ends the owner's operation before it runs the given one, which may start the
// next operation.
template <typename Owner, typename Completion>
auto endingOperation(std::weak_ptr<Owner> owner, OutstandingOperation Owner::*operation,
                     Completion completion) {
  return [owner = std::move(owner), operation,
          completion = std::move(completion)](auto&&... arguments) {
    if (const auto held = owner.lock()) {
      ((*held).*operation).end();
    }
    completion(std::forward<decltype(arguments)>(arguments)...);
  };
}

}  // namespace ostravel::macos
