#include "Companion/Monitor/FleetEvent.h"

namespace ostravel::companion {

FleetMessage fleetMessage(const ReceivedEvent& event, const std::string& host,
                          const std::string& bootId) {
  return {.host = host, .bootId = bootId, .id = plainName(event.messageId), .json = event.json};
}

std::variant<ReceivedEvent, std::string> fleetEvent(const FleetMessage& message) {
  std::variant<ReceivedEvent, std::string> parsed = parseReceivedEvent(message.json);
  if (ReceivedEvent* const event = std::get_if<ReceivedEvent>(&parsed)) {
    event->host = message.host;
    // Both are plain names, which need no escapes, and other members always follow.
    event->json.insert(
        1, R"("host":")" + message.host + R"(","boot_id":")" + message.bootId + R"(",)");
  }
  return parsed;
}

}  // namespace ostravel::companion
