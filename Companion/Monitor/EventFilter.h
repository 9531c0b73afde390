#pragma once

#include <string>
#include <vector>

#include "Companion/Events/FlowHistory.h"
#include "Companion/Events/ReceivedEvent.h"

namespace ostravel::companion {

// Selects the events that are shown. By default all of them.
struct EventFilter {
  // The application's identifier contains one of these texts, in upper or lower case.
  std::vector<std::string> applications = {};
  // The same for the destination.
  std::vector<std::string> hosts = {};
  // Only one event of each flow that fails, and the errors of the provider.
  bool onlyFailures = false;

  // Events without a flow match every application and destination.
  bool passes(const ReceivedEvent& event, const FlowRecord* flow) const;
};

}  // namespace ostravel::companion
