#pragma once

#include <string>
#include <variant>

#include "Companion/Events/ReceivedEvent.h"
#include "Companion/Fleet/FleetMessage.h"

namespace ostravel::companion {

// The message for an event of this machine. An id that is not a plain name is converted to one.
FleetMessage fleetMessage(const ReceivedEvent& event, const std::string& host,
                          const std::string& bootId);

// The event in a message of the fleet; its JSON additionally has "host" and "boot_id". On failure,
// the string describes the problem.
std::variant<ReceivedEvent, std::string> fleetEvent(const FleetMessage& message);

}  // namespace ostravel::companion
