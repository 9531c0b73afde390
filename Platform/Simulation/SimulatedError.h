#pragma once

#include <cerrno>

#include "Platform/Interface/Error.h"

namespace ostravel::simulation {

// The failures that the simulation itself reports.
inline platform::Error connectionReset() {
  return platform::posixError(ECONNRESET, "Connection reset by peer");
}
inline platform::Error connectionRefused() {
  return platform::posixError(ECONNREFUSED, "Connection refused");
}
inline platform::Error operationCancelled() {
  return platform::posixError(ECANCELED, "Operation canceled");
}
inline platform::Error closedLocally() {
  return platform::posixError(ENOTCONN, "Socket is not connected");
}

}  // namespace ostravel::simulation
