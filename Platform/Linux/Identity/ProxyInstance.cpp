#include "Platform/Linux/Identity/ProxyInstance.h"

namespace ostravel::linuxplatform {

bool ProxyInstance::Port::isHeldBy(std::uint64_t listener) {
  const std::lock_guard guard(lock_);
  const auto answer = diagnostics_->findListener(address_);
  return answer && *answer && (*answer)->cookie == listener;
}

void ProxyInstance::Port::setWatch(std::optional<ListenerWatch> watch) {
  const std::lock_guard guard(lock_);
  watch_ = watch;
}

bool ProxyInstance::Port::hasNotChangedSince(std::uint64_t changes) {
  const std::lock_guard guard(lock_);
  return watch_ && watch_->changes() == changes;
}

}  // namespace ostravel::linuxplatform
