#include "Tests/Simulator/ObservedQueue.h"

#include <utility>

namespace ostravel::simulator {

ObservedQueue::ObservedQueue(World& world, std::string label, platform::DispatchQueueKind kind)
    : world_(world), queue_(world.queue(), std::move(label), kind) {}

void ObservedQueue::setStalled(bool stalled) {
  isStalled_ = stalled;
  if (!isStalled_) {
    for (Work& work : std::exchange(waiting_, {})) {
      queue_.async(std::move(work));
    }
  }
}

void ObservedQueue::async(Work work) {
  world_.preemptionPoint();
  if (isStalled_) {
    waiting_.push_back(std::move(work));
  } else {
    queue_.async(std::move(work));
  }
}

void ObservedQueue::asyncBarrier(Work work) {
  world_.preemptionPoint();
  // Only the table of tunnels is changed on behalf of a flow.
  if (world_.actor() != 0 && world_.strikesCanary(Canary::losesRemoval)) {
    return;
  }
  queue_.asyncBarrier(std::move(work));
}

}  // namespace ostravel::simulator
