#pragma once

#include <cerrno>

#include "Platform/Interface/Error.h"

namespace ostravel::simulation {

// The failures that the simulation itself reports.
inline platform::Error posixError(int code, std::string_view description) {
  return {std::string(platform::kPOSIXErrorDomain), code, std::string(description)};
}
inline platform::Error connectionReset() {
  return posixError(ECONNRESET, "Connection reset by peer");
}
inline platform::Error connectionRefused() {
  return posixError(ECONNREFUSED, "Connection refused");
}
inline platform::Error operationCancelled() {
  return posixError(ECANCELED, "Operation canceled");
}
inline platform::Error closedLocally() {
  return posixError(ENOTCONN, "Socket is not connected");
}

}  // namespace ostravel::simulation
