#pragma once

#include <memory>
#include <mutex>
#include <optional>

#include "Platform/Interface/Completion.h"

namespace ostravel::macos {

// Admits the first start of a provider and joins the later ones to it. macOS 26 sometimes starts a
// provider a second time without a stop between, and a process that then applies its network
// settings again crashes. Owned by the principal object. Usable from any thread; calls completions
// without a lock.
//
// A failed start is also the result of all starts until the next stop.
class StartCoalescer {
 public:
  // Returns the completion with which to start the provider if this is the first start since the
  // last stop. Otherwise absent: the given completion receives the result of the first start, at
  // once if it is known.
  std::optional<platform::ErrorCompletion> admit(platform::ErrorCompletion completion);

  // The next start is again a first one. Pending starts receive the result of their first start.
  void noteStop();

 private:
  // From a first start to the next stop.
  class Run;

  std::mutex lock_;
  // Null when stopped.
  std::shared_ptr<Run> run_;
};

}  // namespace ostravel::macos
