#include "Platform/Simulation/Schedule/SimulatedQueue.h"

#include <utility>

namespace ostravel::simulation {

SimulatedQueue::SimulatedQueue(RunQueue& run, std::string label, platform::DispatchQueueKind kind)
    : run_(run), lane_(std::make_shared<WorkLane>(std::move(label), kind)) {}

const std::string& SimulatedQueue::label() const {
  return lane_->label();
}

void SimulatedQueue::async(Work work) {
  run_.post(lane_, ItemKind::normal, std::move(work));
}

void SimulatedQueue::asyncBarrier(Work work) {
  run_.post(lane_, ItemKind::barrier, std::move(work));
}

void SimulatedQueue::runSync(const Work& work) {
  run_.runInCaller(lane_, ItemKind::normal, work);
}

void SimulatedQueue::runSyncBarrier(const Work& work) {
  run_.runInCaller(lane_, ItemKind::barrier, work);
}

}  // namespace ostravel::simulation
