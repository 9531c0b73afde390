#pragma once

#include <optional>

#include "Companion/Shared/HostPort.h"

namespace ostravel::companion {

// A TCP socket that listens already and was passed to this process, which now owns it.
struct InheritedListener {
  int descriptor;
  HostPort address;
};

// The one that the service manager has passed, if there is one: see sd_listen_fds(3). With it, a
// service needs no network of its own. Called once, before other threads.
std::optional<InheritedListener> inheritedListener();

}  // namespace ostravel::companion
