#pragma once

namespace ostravel::testing {

// Moves this process, which must have only one thread, into a new network namespace with nothing
// but loopback, so that no test ever touches the machine's network. Ends the process with a clear
// message when the machine does not permit it.
void enterPrivateNetwork();

}  // namespace ostravel::testing
