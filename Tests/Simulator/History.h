#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Platform/Simulation/Schedule/RunQueue.h"
#include "Tests/Simulator/Digest.h"
#include "Tests/Simulator/HistoryChecker.h"
#include "Tests/Simulator/HistoryEvent.h"

namespace ostravel::simulator {

// Everything that happens in a run, in order: checked at once, and kept as a digest, or also as
// text for a reader.
class History {
 public:
  enum class Trace { none, kept };

  History(const simulation::RunQueue& run, HistoryChecker& checker, Trace trace)
      : run_(run), checker_(checker), keepsTrace_(trace == Trace::kept) {}

  void record(const HistoryEvent& event);

  // The same for every run of the same options, whatever it was built with.
  std::uint64_t digest() const { return digest_.value(); }

  struct Line {
    std::uint32_t flow;
    std::string text;
  };
  const std::vector<Line>& trace() const { return trace_; }

 private:
  const simulation::RunQueue& run_;
  HistoryChecker& checker_;
  const bool keepsTrace_;
  Digest digest_;
  std::vector<Line> trace_;
};

}  // namespace ostravel::simulator
