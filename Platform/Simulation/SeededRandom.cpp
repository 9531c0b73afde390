#include "Platform/Simulation/SeededRandom.h"

namespace ostravel::simulation {

namespace {

// Neighbouring seeds and streams must not give neighbouring engine states.
std::uint64_t mixed(std::uint64_t value) {
  value += 0x9e3779b97f4a7c15U;
  value = (value ^ (value >> 30U)) * 0xbf58476d1ce4e5b9U;
  value = (value ^ (value >> 27U)) * 0x94d049bb133111ebU;
  return value ^ (value >> 31U);
}

}  // namespace

SeededRandom::SeededRandom(std::uint64_t seed, std::uint64_t stream)
    : engine_(mixed(mixed(seed) + stream)) {}

std::uint64_t SeededRandom::next() {
  return engine_();
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
