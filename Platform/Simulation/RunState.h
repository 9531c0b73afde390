#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "Platform/Simulation/FaultSource.h"
#include "Platform/Simulation/Journal.h"
#include "Platform/Simulation/Schedule/RunQueue.h"

namespace ostravel::simulation {

// Shared by all objects of one run. Owned by the simulation, which outlives them.
struct RunState {
  RunQueue queue;
  FaultSource faults;
  Journal journal;

  // Runs the action on the object from the run queue, delayed if a fault is drawn, unless the
  // object has been destroyed by then.
  template <typename Object>
  void deliver(const std::shared_ptr<Object>& object, void (Object::*action)()) {
    queue.postAfter(faults.latency(), [weakObject = std::weak_ptr<Object>(object), action] {
      if (const auto strongObject = weakObject.lock()) {
        (strongObject.get()->*action)();
      }
    });
  }
};

}  // namespace ostravel::simulation
