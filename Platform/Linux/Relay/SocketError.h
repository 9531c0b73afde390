#pragma once

#include <string>
#include <system_error>

#include "Platform/Interface/Error.h"

namespace ostravel::linuxplatform {

// An errno value as an error of the seam.
inline platform::Error socketError(int error) {
  return {std::string(platform::kPOSIXErrorDomain), error, std::generic_category().message(error)};
}

}  // namespace ostravel::linuxplatform
