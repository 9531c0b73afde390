#pragma once

#include <string>
#include <vector>

#include "Companion/Events/FlowHistory.h"
#include "Companion/Events/ReceivedEvent.h"

namespace ostravel::companion {

// Which events are shown. By default all of them.
struct EventFilter {
  // Any of these texts is a part of the application's identifier, whatever the case of its letters.
  std::vector<std::string> applications = {};
  // The same of the destination.
  std::vector<std::string> hosts = {};
  // One event of each flow that fails, and the errors of the provider.
  bool onlyFailures = false;

  // Events of no flow concern every application and destination.
  bool passes(const ReceivedEvent& event, const FlowRecord* flow) const;
};

}  // namespace ostravel::companion
