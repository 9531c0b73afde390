#pragma once

#include <cstdint>

namespace ostravel::simulation {

// Random numbers that are the same for the same seed on every system, which the distributions of
// the standard library are not. One word of state, so that every flow of a run can have a source of
// its own.
class SeededRandom {
 public:
  // Sources of one seed with different streams are independent of one another.
  SeededRandom(std::uint64_t seed, std::uint64_t stream);

  std::uint64_t next();

  // A number below bound, which is not zero.
  std::uint64_t below(std::uint64_t bound);

  // True with this probability. A probability of zero draws no number, so that faults that are
  // switched off do not change a run.
  bool chance(double probability);

 private:
  std::uint64_t state_;
};

}  // namespace ostravel::simulation
