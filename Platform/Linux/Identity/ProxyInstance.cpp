#include "Platform/Linux/Identity/ProxyInstance.h"

namespace ostravel::linuxplatform {

void ProxyInstance::Port::watch(std::optional<ListenerWatch> watch) {
  const std::lock_guard guard(lock_);
  watch_ = watch;
}

bool ProxyInstance::Port::isUnchanged(std::uint64_t count) {
  const std::lock_guard guard(lock_);
  return watch_ && watch_->changes() == count;
}

bool ProxyInstance::Port::isHeldBy(std::uint64_t listener) {
  const std::lock_guard guard(lock_);
  const auto answer = diagnostics_->findListener(address_);
  return answer && *answer && (*answer)->cookie == listener;
}

}  // namespace ostravel::linuxplatform
