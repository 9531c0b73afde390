#pragma once

#include <cstddef>

namespace ostravel {

// Allows this process as many open descriptors as its hard limit does (getrlimit(2)): the usual
// soft limit would end after some five hundred tunnels. Returns the limit that is in force then.
std::size_t raiseDescriptorLimit();

}  // namespace ostravel
