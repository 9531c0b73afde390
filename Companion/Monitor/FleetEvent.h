#pragma once

#include <string>
#include <variant>

#include "Companion/Events/ReceivedEvent.h"
#include "Companion/Fleet/FleetMessage.h"

namespace ostravel::companion {

// An event of this machine, as the fleet receives it. An id that would be no plain name is changed
// into one.
FleetMessage fleetMessage(const ReceivedEvent& event, const std::string& host,
                          const std::string& bootId);

// An event of a machine of the fleet, whose JSON has "host" and "boot_id" besides. The string says
// what is wrong with it.
std::variant<ReceivedEvent, std::string> fleetEvent(const FleetMessage& message);

}  // namespace ostravel::companion
