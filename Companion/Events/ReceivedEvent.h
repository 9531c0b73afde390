#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace ostravel::companion {

// One validated event of the extension. Its texts are as received, not yet printable.
struct ReceivedEvent {
  std::string host;  // the machine; empty for this one
  std::string messageId;
  double timestamp = 0;  // seconds since 1970
  std::string level;
  std::string signal;
  std::string code;
  std::string message;
  std::string flowId;  // empty if the event belongs to no flow
  std::string appId;   // empty if the event names no application
  // The other members of `context` and `metrics`, in this order.
  std::vector<std::pair<std::string, std::string>> details;
  std::string json;  // the whole event, compact and safe to print

  // The value of this key in `details`, or null.
  const std::string* detail(std::string_view key) const;
};

// Parses the body of a frame: one JSON object with nothing after it and no duplicate key, with all
// required keys, each of its type. Ignores unknown keys, so that an older monitor can show the
// events of a newer extension. A text may contain any character, a key any but U+0000. On failure,
// the string describes the problem.
std::variant<ReceivedEvent, std::string> parseReceivedEvent(std::string_view body);

}  // namespace ostravel::companion
