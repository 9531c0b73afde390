#include "Platform/Linux/Relay/RedirectPath.h"

#include <utility>

namespace ostravel::linuxplatform {

void RedirectPath::setWatcher(std::weak_ptr<Watcher> watcher) {
  const std::lock_guard guard(lock_);
  watcher_ = std::move(watcher);
}

std::shared_ptr<RedirectPath::Watcher> RedirectPath::watcher() {
  const std::lock_guard guard(lock_);
  return watcher_.lock();
}

void RedirectPath::reportMissing(unsigned loopIndex, const FlowTuple& tuple) {
  if (const auto found = watcher()) {
    found->connectionIsMissing(loopIndex, tuple);
  }
}

void RedirectPath::reportStuck(unsigned loopIndex, AddressFamily family, int error) {
  // Without a watcher nothing would make the path usable again.
  if (const auto found = watcher()) {
    setUsable(family, false);
    found->connectionsCannotBeAccepted(loopIndex, family, error);
  }
}

void RedirectPath::prepareReset(const FlowTuple& tuple) {
  if (const auto found = watcher()) {
    found->connectionWillBeReset(tuple);
  }
}

}  // namespace ostravel::linuxplatform
