#pragma once

namespace ostravel::testing {

// Puts this process, which must have one thread only, into a network namespace of its own with
// nothing but loopback in it, so that no test ever touches the machine's network. Ends the process
// with a clear sentence when the machine does not permit it.
void enterPrivateNetwork();

}  // namespace ostravel::testing
