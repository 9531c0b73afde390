#pragma once

#include <string>

namespace ostravel::testing {

// The helper program as a local proxy, at most one per process. Serves on separate threads, so that
// input lines are still obeyed.

// Accepts until the socket is shut down.
void serveConnect(int listener);

// Obeys a line that sets the answer to CONNECT; false if it is not such a line.
bool steerProxy(const std::string& line);

}  // namespace ostravel::testing
