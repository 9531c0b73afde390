#pragma once

#include <chrono>
#include <cstddef>

#include "Platform/Simulation/FaultPlan.h"
#include "Platform/Simulation/Schedule/SeededRandom.h"

namespace ostravel::simulation {

// Draws the faults of a run.
class FaultSource {
 public:
  FaultSource(const FaultPlan& plan, SeededRandom random);

  // Applies from now on.
  void setPlan(const FaultPlan& plan) { plan_ = plan; }

  // The delay of an operation, or zero.
  std::chrono::nanoseconds latency();
  // How many of the available bytes a read delivers; minimum is not above available.
  std::size_t chunk(std::size_t minimum, std::size_t available);
  bool readFails();
  bool writeFails();
  bool openFails();
  bool connectionIsRefused();
  bool socketIsRefused();

 private:
  FaultPlan plan_;
  SeededRandom random_;
};

}  // namespace ostravel::simulation
