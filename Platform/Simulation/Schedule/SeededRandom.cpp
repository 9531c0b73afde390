#include "Platform/Simulation/Schedule/SeededRandom.h"

namespace ostravel::simulation {

namespace {

// The golden ratio as a fraction of 2^64: odd, and with no pattern in its bits.
constexpr std::uint64_t kIncrement = 0x9e3779b97f4a7c15U;

// Neighbouring values must not give neighbouring numbers.
std::uint64_t mixed(std::uint64_t value) {
  value = (value ^ (value >> 30U)) * 0xbf58476d1ce4e5b9U;
  value = (value ^ (value >> 27U)) * 0x94d049bb133111ebU;
  return value ^ (value >> 31U);
}

}  // namespace

SeededRandom::SeededRandom(std::uint64_t seed, std::uint64_t stream)
    : state_(mixed(mixed(seed + kIncrement) + stream + kIncrement)) {}

std::uint64_t SeededRandom::next() {
  state_ += kIncrement;
  return mixed(state_);
}

std::uint64_t SeededRandom::below(std::uint64_t bound) {
  // The remainder favours small numbers by less than bound / 2^64, which no run can notice.
  return next() % bound;
}

bool SeededRandom::chance(double probability) {
  if (probability <= 0.0) {
    return false;
  }
  // The 53 bits that a double holds exactly.
  constexpr double kScale = 1.0 / 9007199254740992.0;
  return static_cast<double>(next() >> 11U) * kScale < probability;
}

}  // namespace ostravel::simulation
