#include "Platform/Linux/RedirectPath.h"

#include <utility>

namespace ostravel::linuxplatform {

void RedirectPath::setWatcher(std::weak_ptr<Watcher> watcher) {
  const std::lock_guard guard(lock_);
  watcher_ = std::move(watcher);
}

void RedirectPath::reportMissing(unsigned loopIndex, const FlowTuple& tuple) {
  std::shared_ptr<Watcher> watcher;
  {
    const std::lock_guard guard(lock_);
    watcher = watcher_.lock();
  }
  if (watcher) {
    watcher->connectionIsMissing(loopIndex, tuple);
  }
}

}  // namespace ostravel::linuxplatform
