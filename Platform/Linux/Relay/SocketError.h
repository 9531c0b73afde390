#pragma once

#include <cerrno>
#include <string>
#include <system_error>

#include "Platform/Interface/Error.h"

namespace ostravel::linuxplatform {

// Converts an errno value to an error of the platform interface.
inline platform::Error socketError(int error) {
  const auto made = [](int number) {
    return platform::posixError(number, std::generic_category().message(number));
  };
  if (error == ECANCELED) {
    // Part of the end of every tunnel.
    static const platform::Error cancelled = made(ECANCELED);
    return cancelled;
  }
  return made(error);
}

}  // namespace ostravel::linuxplatform
