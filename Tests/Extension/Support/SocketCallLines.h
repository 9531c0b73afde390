#pragma once

#include <string>
#include <vector>

#include "Platform/Simulation/SimulatedSockets.h"

namespace ostravel::test {

// One line per call, for comparison: "socket 2 1 0", "statusFlags", "setStatusFlags 2050",
// "connect 16 bytes", "poll 350 ms", "pendingError", "write 100 bytes", "close".
std::vector<std::string> linesOf(const std::vector<simulation::SocketCall>& calls);

}  // namespace ostravel::test
