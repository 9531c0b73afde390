// Whole tunnels that a script of bytes drives: what applications and the proxy send and when, and
// in which order everything happens. The simulator's history checker judges the result.
//
//   | flows, slots | preemptions | surroundings | scripts of the flows | choices ... |
//
// A script: | how it begins | number of steps | steps ... |; a step: | move | delay | size, bytes
// |.

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "Tests/Fuzz/FuzzInput.h"
#include "Tests/Simulator/SmallRun.h"

namespace {

using namespace std::chrono_literals;
using ostravel::fuzz::FuzzInput;
using ostravel::fuzz::require;
using ostravel::simulator::Move;
using ostravel::simulator::Scenario;
using ostravel::simulator::SmallFlow;
using ostravel::simulator::SmallRun;
using ostravel::simulator::Step;

constexpr std::size_t kMostFlows = 3;
constexpr std::size_t kMostSteps = 8;
constexpr std::size_t kMostPreemptions = 6;

Step stepOf(FuzzInput& input) {
  constexpr std::size_t kMoves = static_cast<std::size_t>(Move::resetApplication) + 1;
  constexpr std::array<std::chrono::nanoseconds, 8> kDelays = {0ns, 0ns,   0ns,      1ns,
                                                               1ms, 100ms, 5s - 1ns, 5s};
  const auto move = static_cast<Move>(input.number() % kMoves);
  const auto delay = kDelays[input.number() % kDelays.size()];
  const bool hasBytes = move == Move::sendFromProxy || move == Move::sendFromApplication;
  return {move, hasBytes ? std::string(input.text(input.number())) : std::string(), delay};
}

SmallFlow flowOf(FuzzInput& input) {
  const unsigned beginning = input.number();
  SmallFlow flow;
  flow.isAcceptedLate = (beginning & 1U) != 0;
  flow.isAtDeadline = (beginning & 2U) != 0;
  flow.isEarly = (beginning & 4U) != 0;
  for (std::size_t steps = input.number() % (kMostSteps + 1); steps > 0; --steps) {
    flow.steps.push_back(stepOf(input));
  }
  return flow;
}

Scenario scenarioOf(FuzzInput& input) {
  Scenario scenario;
  // The longest delay after the time-out, and some time to spare.
  scenario.duration = 11s;
  const std::size_t flows = 1 + input.number() % kMostFlows;
  scenario.slots = 1 + input.number() % kMostFlows;
  scenario.mostPreemptions = input.number() % (kMostPreemptions + 1);
  const unsigned surroundings = input.number();
  scenario.probeFails = (surroundings & 1U) != 0;
  scenario.probeSucceeds = (surroundings & 2U) != 0;
  scenario.stops = (surroundings & 4U) != 0;
  while (scenario.flows.size() < flows) {
    scenario.flows.push_back(flowOf(input));
  }
  return scenario;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const Scenario scenario = scenarioOf(input);
  SmallRun run(scenario, [&input](std::uint64_t bound) { return input.number() % bound; });
  const auto violation = run.play();
  require(!violation, violation ? violation->invariant.c_str() : "");
  return 0;
}
