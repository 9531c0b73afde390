#include "Tests/Simulator/Shrinker.h"

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

namespace ostravel::simulator {

namespace {

// A person waits for the result.
constexpr int kMostRuns = 2000;

class Shrinking {
 public:
  explicit Shrinking(RunOptions options) : options_(std::move(options)) {
    options_.faults = options_.faults.value_or(FaultMenu::drawn(options_.seed));
    if (!options_.only) {
      options_.only.emplace();
      for (std::uint32_t number = 1; number <= options_.flows; ++number) {
        options_.only->push_back(number);
      }
    }
  }

  RunOptions smallest() {
    bool hasShrunk = true;
    while (hasShrunk && runs_ < kMostRuns) {
      hasShrunk = removeFaults();
      for (std::size_t size = options_.only->size() / 2; size > 0; size /= 2) {
        hasShrunk = removeFlows(size) || hasShrunk;
      }
    }
    return options_;
  }

 private:
  bool tryOptions(const RunOptions& candidate) {
    if (++runs_ > kMostRuns || !play(candidate).violation) {
      return false;
    }
    options_ = candidate;
    return true;
  }

  bool removeFaults() {
    bool hasShrunk = false;
    for (const Fault fault : options_.faults->faults()) {
      RunOptions candidate = options_;
      candidate.faults = options_.faults->without(fault);
      hasShrunk = tryOptions(candidate) || hasShrunk;
    }
    return hasShrunk;
  }

  // Tries to do without each group of that many flows.
  bool removeFlows(std::size_t size) {
    bool hasShrunk = false;
    for (std::size_t begin = 0; begin < options_.only->size();) {
      std::vector<std::uint32_t> flows = *options_.only;
      const auto first = flows.begin() + static_cast<std::ptrdiff_t>(begin);
      const auto count = std::min(size, flows.size() - begin);
      flows.erase(first, first + static_cast<std::ptrdiff_t>(count));
      RunOptions candidate = options_;
      candidate.only = std::move(flows);
      if (tryOptions(candidate)) {
        hasShrunk = true;
      } else {
        begin += size;
      }
    }
    return hasShrunk;
  }

  RunOptions options_;
  int runs_ = 0;
};

}  // namespace

RunOptions shrink(RunOptions options) {
  return Shrinking(std::move(options)).smallest();
}

}  // namespace ostravel::simulator
