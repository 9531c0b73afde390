#pragma once

#include <string>

#include "Platform/Interface/SystemLimits.h"

namespace ostravel {

// The local proxy's address as text: host:port.
inline std::string proxyAddress() {
  return std::string(platform::limits::kProxyHost) + ":" +
         std::to_string(platform::limits::kProxyPort);
}

}  // namespace ostravel
