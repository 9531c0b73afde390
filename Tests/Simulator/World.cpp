#include "Tests/Simulator/World.h"

#include <array>
#include <utility>

#include "Tests/Simulator/RandomStreams.h"

namespace ostravel::simulator {

namespace {

using simulation::RunOrder;
using simulation::SeededRandom;

// More preemption than that of two threads finds nothing new and costs time.
constexpr std::size_t kDeepestPreemption = 3;

simulation::FaultPlan planOf(const FaultMenu& faults, SeededRandom random) {
  const auto odds = [&](Fault fault, double most) {
    const double drawn = most * static_cast<double>(1 + random.below(8)) / 8.0;
    return faults.has(fault) ? drawn : 0.0;
  };
  simulation::FaultPlan plan;
  plan.latency = odds(Fault::lateCompletions, 0.5);
  plan.maximumLatency = std::chrono::microseconds(1) * (std::uint64_t{1} << random.below(23));
  plan.shortRead = odds(Fault::shortReads, 0.8);
  plan.readError = odds(Fault::readErrors, 0.05);
  plan.writeError = odds(Fault::writeErrors, 0.05);
  plan.openError = odds(Fault::openErrors, 0.1);
  plan.connectRefusal = odds(Fault::connectRefusals, 0.1);
  return plan;
}

simulation::RunQueue queueOf(const WorldOptions& options) {
  if (options.chooser) {
    return simulation::RunQueue(options.chooser);
  }
  return {RunOrder::seeded, SeededRandom(options.seed, streams::kOrder)};
}

}  // namespace

World::World(const WorldOptions& options, HistoryChecker& checker)
    : run_{queueOf(options),
           {planOf(options.faults, SeededRandom(options.seed, streams::kFaultPlan)),
            SeededRandom(options.seed, streams::kFaults)},
           {}},
      checker_(checker),
      history_(run_.queue, checker, options.trace),
      faults_(options.faults),
      canary_(options.canary),
      random_(options.seed, streams::kRun),
      preemption_(options.seed, streams::kPreemption),
      chooser_(options.chooser),
      preemptionsLeft_(options.mostPreemptions) {
  run_.journal.setEnabled(false);
  if (faults_.has(Fault::preemption)) {
    constexpr std::array<std::uint64_t, 4> kOdds = {3, 10, 40, 200};
    preemptionOdds_ = kOdds[preemption_.below(kOdds.size())];
  }
}

void World::preemptionPoint() {
  if (!run_.queue.canRunAnother() || depth_ == kDeepestPreemption || !isPreempted()) {
    return;
  }
  record({.kind = HistoryKind::preempted});
  const ActorScope nobody(*this, 0);
  ++depth_;
  run_.queue.runAnother();
  --depth_;
}

bool World::isPreempted() {
  if (chooser_) {
    const bool chosen = preemptionsLeft_ > 0 && chooser_(2) == 1;
    preemptionsLeft_ -= chosen ? 1 : 0;
    return chosen;
  }
  return preemptionOdds_ != 0 && !faultsStopped_ && preemption_.below(preemptionOdds_) == 0;
}

void World::after(std::chrono::nanoseconds delay, std::function<void()> work) {
  if (delay <= std::chrono::nanoseconds::zero()) {
    work();
  } else {
    run_.queue.postAfter(delay, std::move(work));
  }
}

void World::spend(std::chrono::nanoseconds duration) {
  run_.queue.spend(duration);
  checker_.excuseDelay(run_.queue.now());
}

bool World::strikes(Fault fault, std::uint64_t odds) {
  return has(fault) && random_.below(odds) == 0;
}

void World::stopFaults() {
  faultsStopped_ = true;
  run_.faults.setPlan({});
}

}  // namespace ostravel::simulator
