#pragma once

#include <cstdint>

namespace ostravel::simulator {

// The independent sources of random numbers of one seed (SeededRandom). Each flow has its own, so
// that a run with fewer flows leaves the others as they are: this makes it possible to shrink a
// run.
namespace streams {

inline constexpr std::uint64_t kMenu = 1;
inline constexpr std::uint64_t kOrder = 2;
inline constexpr std::uint64_t kFaults = 3;
inline constexpr std::uint64_t kIdentifiers = 4;
inline constexpr std::uint64_t kRun = 5;
inline constexpr std::uint64_t kPreemption = 6;
inline constexpr std::uint64_t kFaultPlan = 7;
inline constexpr std::uint64_t kSurroundings = 8;
// Plus the number of the flow.
inline constexpr std::uint64_t kFlows = 1000;

}  // namespace streams

}  // namespace ostravel::simulator
