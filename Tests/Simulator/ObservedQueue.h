#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Platform/Interface/DispatchQueue.h"
#include "Platform/Simulation/Schedule/SimulatedQueue.h"
#include "Tests/Simulator/World.h"

namespace ostravel::simulator {

// A simulated queue at whose submissions the system can be preempted, and that can be stalled.
class ObservedQueue final : public platform::DispatchQueue {
 public:
  ObservedQueue(World& world, std::string label, platform::DispatchQueueKind kind);

  // Stalled: items wait from now on. Otherwise: waiting items run.
  void setStalled(bool stalled);

  const std::string& label() const override { return queue_.label(); }
  void async(Work work) override;
  void asyncBarrier(Work work) override;

 protected:
  void runSync(const Work& work) override { queue_.sync(work); }
  void runSyncBarrier(const Work& work) override { queue_.syncBarrier(work); }

 private:
  World& world_;
  simulation::SimulatedQueue queue_;
  bool isStalled_ = false;
  std::vector<Work> waiting_;
};

}  // namespace ostravel::simulator
