#pragma once

namespace ostravel::companion {

// Allows this process as many open descriptors as its hard limit does (getrlimit(2)): the usual
// soft limit would end after some five hundred tunnels.
void raiseDescriptorLimit();

}  // namespace ostravel::companion
