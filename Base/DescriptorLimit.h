#pragma once

#include <cstddef>

namespace ostravel {

// Raises the limit of open descriptors to the hard limit (getrlimit(2)); the usual soft limit is
// used up by some five hundred tunnels. Returns the new limit.
std::size_t raiseDescriptorLimit();

}  // namespace ostravel
