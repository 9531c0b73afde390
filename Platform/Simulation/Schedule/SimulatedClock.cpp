#include "Platform/Simulation/Schedule/SimulatedClock.h"

#include <chrono>

namespace ostravel::simulation {

double SimulatedClock::secondsSince1970() const {
  return kStart + std::chrono::duration<double>(run_.now()).count();
}

}  // namespace ostravel::simulation
