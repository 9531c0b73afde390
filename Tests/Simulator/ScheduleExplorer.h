#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace ostravel::simulator {

// Enumerates the sequences of choices that a scenario can make: plays it repeatedly, each time with
// the previous choices up to the last one that has an alternative left.
//
// The first alternative is the usual one. Where all sequences would be too many, only those are
// played that deviate from it a limited number of times; races need few deviations.
class ScheduleExplorer {
 public:
  static constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();

  explicit ScheduleExplorer(std::size_t mostDeviations = kUnlimited)
      : mostDeviations_(mostDeviations) {}

  // The scenario asks with a bound above one and gets a number below it. What it asks may depend on
  // the answers and on nothing else.
  std::uint64_t choose(std::uint64_t bound) {
    if (position_ == choices_.size()) {
      choices_.push_back({0, deviations_ < mostDeviations_ ? bound : 1});
    }
    const std::uint64_t chosen = choices_[position_++].chosen;
    deviations_ += chosen == 0 ? 0 : 1;
    return chosen;
  }

  // False when every sequence has been played.
  bool next() {
    position_ = 0;
    deviations_ = 0;
    while (!choices_.empty() && ++choices_.back().chosen == choices_.back().bound) {
      choices_.pop_back();
    }
    return !choices_.empty();
  }

  // Plays the scenario in every possible way; returns how many there were.
  template <typename Scenario>
  std::size_t playAll(Scenario scenario) {
    std::size_t played = 0;
    do {
      scenario();
      ++played;
    } while (next());
    return played;
  }

 private:
  struct Choice {
    std::uint64_t chosen;
    std::uint64_t bound;
  };

  const std::size_t mostDeviations_;
  std::vector<Choice> choices_;
  std::size_t position_ = 0;
  // Of the sequence so far.
  std::size_t deviations_ = 0;
};

}  // namespace ostravel::simulator
