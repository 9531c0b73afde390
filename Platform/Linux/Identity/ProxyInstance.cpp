#include "Platform/Linux/Identity/ProxyInstance.h"

namespace ostravel::linuxplatform {

bool ProxyInstance::Port::isHeldBy(std::uint64_t listener) {
  const std::lock_guard guard(lock_);
  const bool isCurrent =
      publisher_ && found_ && found_->changes == publisher_->listener().changes();
  if (!isCurrent) {
    found_ = find();
  }
  return found_ && found_->listener == listener;
}

std::optional<ProxyInstance::Port::Found> ProxyInstance::Port::find() const {
  // Read first: a change during the look-up makes its result invalid.
  const std::uint64_t changes = publisher_ ? publisher_->listener().changes() : 0;
  const auto answer = diagnostics_->findListener(address_);
  if (!answer) {
    return std::nullopt;
  }
  const auto& socket = *answer;
  return Found{changes, socket ? std::optional(socket->cookie) : std::nullopt};
}

}  // namespace ostravel::linuxplatform
