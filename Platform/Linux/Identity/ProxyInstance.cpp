#include "Platform/Linux/Identity/ProxyInstance.h"

namespace ostravel::linuxplatform {

bool ProxyInstance::Port::isHeldBy(std::uint64_t listener) {
  const std::lock_guard guard(lock_);
  const auto answer = diagnostics_->findListener(address_);
  return answer && *answer && (*answer)->cookie == listener;
}

}  // namespace ostravel::linuxplatform
