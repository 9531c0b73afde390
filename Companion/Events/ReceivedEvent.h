#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace ostravel::companion {

// One event of the extension, checked. Its texts are as received, not yet printable.
struct ReceivedEvent {
  std::string host;  // whose event it is; empty for this machine
  std::string messageId;
  double timestamp = 0;  // seconds since 1970
  std::string level;
  std::string signal;
  std::string code;
  std::string message;
  std::string flowId;  // empty when the event belongs to no flow
  std::string appId;   // empty when the event names no application
  // What else `context` and `metrics` say, in this order.
  std::vector<std::pair<std::string, std::string>> details;
  std::string json;  // the whole event, compact and safe to print

  // The value of this key in `details`, or null.
  const std::string* detail(std::string_view key) const;
};

// Reads the body of a frame: one JSON object with nothing after it and no duplicate key, with all
// required keys, each of its type. Ignores unknown keys, so that an older monitor can show the
// events of a newer extension. A text may hold any character, a key any but U+0000. The string says
// what is wrong.
std::variant<ReceivedEvent, std::string> parseReceivedEvent(std::string_view body);

}  // namespace ostravel::companion
