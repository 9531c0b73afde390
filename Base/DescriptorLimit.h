#pragma once

#include <cstddef>

namespace ostravel {

// Raises the limit of open descriptors to the hard limit (getrlimit(2)); five hundred tunnels use
// up the usual soft limit. Returns the new limit.
std::size_t raiseDescriptorLimit();

}  // namespace ostravel
