#pragma once

#include <cstdint>

namespace ostravel::linuxplatform {

// What observed host names are used for.
enum class NameUse : std::uint8_t {
  // Nothing is observed; every flow goes by its address.
  off,
  // The lists of domains; the proxy is asked for the address.
  decide,
  // The lists, and the proxy is asked for the name.
  connect,
};

}  // namespace ostravel::linuxplatform
