#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Tests/Simulator/FaultMenu.h"
#include "Tests/Simulator/History.h"
#include "Tests/Simulator/World.h"

namespace ostravel::simulator {

struct RunOptions {
  std::uint64_t seed = 1;
  std::uint32_t flows = 40;
  // Absent: drawn from the seed.
  std::optional<FaultMenu> faults = std::nullopt;
  // Only these flows of all, by number, in ascending order; absent for all of them.
  std::optional<std::vector<std::uint32_t>> only = std::nullopt;
  Canary canary = Canary::none;
  History::Trace trace = History::Trace::none;
};

// What happened in one run, or in several.
struct RunCounts {
  std::size_t flows = 0;
  std::size_t tunnels = 0;
  std::size_t successes = 0;
  std::size_t timeouts = 0;
  std::size_t rejections = 0;
  // At any one moment.
  std::size_t mostPending = 0;

  RunCounts& operator+=(const RunCounts& other) {
    flows += other.flows;
    tunnels += other.tunnels;
    successes += other.successes;
    timeouts += other.timeouts;
    rejections += other.rejections;
    mostPending = std::max(mostPending, other.mostPending);
    return *this;
  }
};

struct RunResult {
  FaultMenu faults = FaultMenu::none();
  std::uint64_t digest = 0;
  std::optional<Violation> violation;
  std::vector<History::Line> trace;
  RunCounts counts;
};

// Plays one run from its start to the end, when nothing is left of it.
RunResult play(const RunOptions& options);

}  // namespace ostravel::simulator
