#pragma once

#include "Tests/Simulator/SimulatorRun.h"

namespace ostravel::simulator {

// The smallest run that still fails: with fewer flows and with fewer faults than the given one,
// which fails. Any failure counts, because a smaller run reaches it on another path.
RunOptions shrink(RunOptions options);

}  // namespace ostravel::simulator
