#include "Platform/Simulation/FaultSource.h"

namespace ostravel::simulation {

FaultSource::FaultSource(const FaultPlan& plan, SeededRandom random)
    : plan_(plan), random_(random) {}

std::chrono::nanoseconds FaultSource::latency() {
  if (!random_.chance(plan_.latency) || plan_.maximumLatency <= std::chrono::nanoseconds::zero()) {
    return std::chrono::nanoseconds::zero();
  }
  const auto bound = static_cast<std::uint64_t>(plan_.maximumLatency.count());
  return std::chrono::nanoseconds(random_.below(bound) + 1);
}

std::size_t FaultSource::chunk(std::size_t minimum, std::size_t available) {
  if (!random_.chance(plan_.shortRead)) {
    return available;
  }
  return minimum + random_.below(available - minimum + 1);
}

bool FaultSource::readFails() {
  return random_.chance(plan_.readError);
}

bool FaultSource::writeFails() {
  return random_.chance(plan_.writeError);
}

bool FaultSource::openFails() {
  return random_.chance(plan_.openError);
}

bool FaultSource::connectionIsRefused() {
  return random_.chance(plan_.connectRefusal);
}

bool FaultSource::socketIsRefused() {
  return random_.chance(plan_.socketRefusal);
}

}  // namespace ostravel::simulation
