#pragma once

#include "Platform/Interface/Clock.h"
#include "Platform/Simulation/Schedule/RunQueue.h"

namespace ostravel::simulation {

// The time of day of a run: virtual time, counted from a fixed moment.
class SimulatedClock final : public platform::Clock {
 public:
  // 2020-09-13 12:26:40 UTC: recognised at once in a log, and a whole number.
  static constexpr double kStart = 1'600'000'000.0;

  explicit SimulatedClock(const RunQueue& run) : run_(run) {}

  double secondsSince1970() const override;

 private:
  const RunQueue& run_;
};

}  // namespace ostravel::simulation
