#pragma once

#include <memory>

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#include "Tests/Simulator/World.h"

namespace ostravel::simulator {

// Ends a run that may have been cut short, and so leave objects that own themselves. scripts: a map
// to the scripts of its flows.
void tearDown(World& world, std::shared_ptr<PacketTunnelProvider>& provider, const auto& scripts) {
  world.queue().clear();
  provider.reset();
  for (const auto& [number, script] : scripts) {
    script->dropCompletions();
  }
  world.queue().clear();
}

}  // namespace ostravel::simulator
