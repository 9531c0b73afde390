#include "Platform/Linux/Inspection/InspectorHealth.h"

namespace ostravel::linuxplatform {

void InspectorHealth::noteFailure(const std::string& reason) {
  const std::lock_guard guard(lock_);
  if (!isFailing_.exchange(true)) {
    warn_("processes cannot be inspected (" + reason +
          "); until they can, those that are not known yet have no identifier, and no new local "
          "proxy is recognised");
  }
}

void InspectorHealth::noteAnswer() {
  // The usual case takes no lock.
  if (!isFailing_.load(std::memory_order_relaxed)) {
    return;
  }
  const std::lock_guard guard(lock_);
  if (isFailing_.exchange(false)) {
    warn_("processes can be inspected again");
  }
}

}  // namespace ostravel::linuxplatform
