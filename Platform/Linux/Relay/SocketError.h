#pragma once

#include <string>
#include <system_error>

#include "Platform/Interface/Error.h"

namespace ostravel::linuxplatform {

// Converts an errno value to an error of the platform interface.
inline platform::Error socketError(int error) {
  return platform::posixError(error, std::generic_category().message(error));
}

}  // namespace ostravel::linuxplatform
