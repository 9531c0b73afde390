#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ostravel::companion {

// An event on its way from a machine to the monitors of the fleet.
struct FleetMessage {
  std::string host;    // a host name, without white space
  std::string bootId;  // the boot of the machine in which the event was received
  std::string id;      // unique among all events
  std::string json;    // the event, on one line

  bool operator==(const FleetMessage&) const = default;
};

// True if the text is valid as a host name, a boot or the id of a message: 1 to 253 letters,
// digits, dots, hyphens and underscores. All of them are safe in a header, in a file and on a
// terminal.
bool isPlainName(std::string_view text);

// The text with an underscore for every character that a plain name cannot contain; "-" if it is
// empty.
std::string plainName(std::string_view text);

// The names of this machine (hostname(7), random(4)).
std::string nameOfThisHost();
std::string thisBoot();

// The subject of a machine's messages: ostravel.events.HOST.BOOT. Dots separate the parts of a
// subject, so dots in names become underscores.
constexpr std::string_view kFleetSubjects = "ostravel.events.>";
std::string fleetSubject(const FleetMessage& message);
// True if the message comes from the machine in its subject. The server can restrict subjects, but
// not headers.
bool isFleetSubject(std::string_view subject, const FleetMessage& message);

// The form in which a spool stores it: "HOST BOOT ID\n" and the event.
std::string encodeRecord(const FleetMessage& message);
std::optional<FleetMessage> decodeRecord(std::string_view record);

}  // namespace ostravel::companion
