#pragma once

#include <memory>
#include <string>

#include "Platform/Interface/DispatchQueue.h"
#include "Platform/Simulation/Schedule/RunQueue.h"

namespace ostravel::simulation {

// A queue whose items run in the one run queue. Items that would run side by side elsewhere run
// one after the other here, in any order that the rules allow. A sync item runs in the caller,
// after what must precede it; where it would wait forever it throws std::logic_error.
class SimulatedQueue final : public platform::DispatchQueue {
 public:
  SimulatedQueue(RunQueue& run, std::string label, platform::DispatchQueueKind kind);

  const std::string& label() const override;
  void async(Work work) override;
  void asyncBarrier(Work work) override;

 protected:
  void runSync(const Work& work) override;
  void runSyncBarrier(const Work& work) override;

 private:
  RunQueue& run_;
  const std::shared_ptr<WorkLane> lane_;
};

}  // namespace ostravel::simulation
