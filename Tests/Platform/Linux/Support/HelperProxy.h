#pragma once

#include <string>

namespace ostravel::testing {

// The helper program as a local proxy, one for the process. Serves on threads of its own, so that
// the lines of its input are obeyed meanwhile.

// Accepts until the socket is shut down.
void serveConnect(int listener);

// Obeys a line that says how CONNECT is answered from now on; false when it is not such a line.
bool steerProxy(const std::string& line);

}  // namespace ostravel::testing
