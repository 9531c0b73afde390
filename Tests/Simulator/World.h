#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "Platform/Simulation/RunState.h"
#include "Tests/Simulator/FaultMenu.h"
#include "Tests/Simulator/History.h"

namespace ostravel::simulator {

// A deliberate defect of the platform: a simulator that does not find it is worthless. Each is
// applied to about one flow in sixteen.
enum class Canary : std::uint8_t {
  none,
  // A write to the proxy completes twice.
  completesTwice,
  // The removal of a tunnel from the provider's table is lost.
  losesRemoval,
  // The last byte of a chunk is wrong.
  alteredByte,
  // The watchdog's timer never fires.
  silentWatchdog,
};

struct WorldOptions {
  std::uint64_t seed = 1;
  FaultMenu faults = FaultMenu::none();
  Canary canary = Canary::none;
  History::Trace trace = History::Trace::none;
  // Decides the order and the preemption instead of the seed.
  simulation::RunQueue::Chooser chooser = nullptr;
  // How often the system is preempted in a run with a chooser.
  std::size_t mostPreemptions = 0;
};

// What all objects of one run share. Owned by the run, which outlives them.
class World {
 public:
  World(const WorldOptions& options, HistoryChecker& checker);
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  simulation::RunState& run() { return run_; }
  simulation::RunQueue& queue() { return run_.queue; }
  History& history() { return history_; }
  const FaultMenu& faults() const { return faults_; }
  bool has(Fault fault) const { return !faultsStopped_ && faults_.has(fault); }
  Canary canary() const { return canary_; }

  void record(const HistoryEvent& event) { history_.record(event); }

  // A point at which the system can be preempted: it calls its platform and holds no lock. Another
  // item may run here, as on a second thread.
  void preemptionPoint();

  // Calls the work after the delay, at once if there is none.
  void after(std::chrono::nanoseconds delay, std::function<void()> work);

  // Time passes while nothing else happens: something blocks, or the machine sleeps.
  void spend(std::chrono::nanoseconds duration);

  // The flow on whose behalf the system is running, zero for none.
  std::uint32_t actor() const { return actor_; }

  // True for about one in `odds`, if the fault is on.
  bool strikes(Fault fault, std::uint64_t odds);
  bool strikesCanary(Canary canary) { return canary_ == canary && random_.below(16) == 0; }
  std::uint64_t below(std::uint64_t bound) { return random_.below(bound); }

  // From now on nothing goes wrong any more.
  void stopFaults();

  // Flows and connections that exist; all are gone at the end.
  void addObject() { ++objects_; }
  void removeObject() { --objects_; }
  std::size_t objects() const { return objects_; }
  // A flow was destroyed: its script ends.
  void endFlow(std::uint32_t flow) { endedFlows_.push_back(flow); }
  std::vector<std::uint32_t> takeEndedFlows() { return std::exchange(endedFlows_, {}); }

 private:
  friend class ActorScope;

  bool isPreempted();

  simulation::RunState run_;
  HistoryChecker& checker_;
  History history_;
  const FaultMenu faults_;
  const Canary canary_;
  simulation::SeededRandom random_;
  simulation::SeededRandom preemption_;
  // One point in this many; zero for none.
  std::uint64_t preemptionOdds_ = 0;
  std::size_t depth_ = 0;
  simulation::RunQueue::Chooser chooser_;
  std::size_t preemptionsLeft_ = 0;
  bool faultsStopped_ = false;
  std::uint32_t actor_ = 0;
  std::size_t objects_ = 0;
  std::vector<std::uint32_t> endedFlows_;
};

// For as long as it exists, the system runs on behalf of this flow.
class ActorScope {
 public:
  ActorScope(World& world, std::uint32_t flow) : world_(world), outer_(world.actor_) {
    world_.actor_ = flow;
  }
  ActorScope(const ActorScope&) = delete;
  ActorScope& operator=(const ActorScope&) = delete;
  ~ActorScope() { world_.actor_ = outer_; }

 private:
  World& world_;
  const std::uint32_t outer_;
};

}  // namespace ostravel::simulator
