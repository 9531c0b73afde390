#pragma once

#include <string>

#include "Platform/Interface/UUIDSource.h"
#include "Platform/Simulation/Schedule/SeededRandom.h"

namespace ostravel::simulation {

// Identifiers of the valid form, the same ones for the same seed.
class SimulatedUUIDSource final : public platform::UUIDSource {
 public:
  explicit SimulatedUUIDSource(SeededRandom random) : random_(random) {}

  std::string randomUUID() override;

 private:
  SeededRandom random_;
};

}  // namespace ostravel::simulation
