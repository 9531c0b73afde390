#pragma once

#include <cstdint>

namespace ostravel::linuxplatform {

// What observed host names are used for.
enum class NameUse : std::uint8_t {
  // Nothing is observed; flows are decided on by address.
  off,
  // For the lists of domains; the proxy is asked for the address.
  decide,
  // For the lists of domains; the proxy is asked for the name.
  connect,
};

}  // namespace ostravel::linuxplatform
