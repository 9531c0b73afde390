#include "Companion/Events/ReceivedEvent.h"

#include <jansson.h>

#include <array>
#include <charconv>
#include <cmath>

#include "Base/CompactJSON.h"
#include "Base/JSONHandle.h"

namespace ostravel::companion {
namespace {

constexpr std::string_view kEventType = "extension_proxy_event";
constexpr const char* kAppIdKey = "app_id";

enum class Presence { required, optional };

struct Key {
  const char* name;
  json_type type;  // JSON_REAL means any number
  Presence presence;
};

constexpr std::array kKeys = {
    Key{"message_id", JSON_STRING, Presence::required},
    Key{"timestamp", JSON_REAL, Presence::required},
    Key{"logged_at", JSON_STRING, Presence::required},
    Key{"type", JSON_STRING, Presence::required},
    Key{"current_signal", JSON_STRING, Presence::required},
    Key{"component", JSON_STRING, Presence::required},
    Key{"level", JSON_STRING, Presence::required},
    Key{"code", JSON_STRING, Presence::required},
    Key{"message", JSON_STRING, Presence::required},
    Key{"flow_id", JSON_STRING, Presence::optional},
    Key{"metrics", JSON_OBJECT, Presence::optional},
    Key{"context", JSON_OBJECT, Presence::optional},
};

const char* typeName(json_type type) {
  switch (type) {
    case JSON_STRING:
      return "a string";
    case JSON_OBJECT:
      return "an object";
    default:
      return "a number";
  }
}

bool hasType(const json_t* value, json_type type) {
  return type == JSON_REAL ? json_is_number(value) : json_typeof(value) == type;
}

std::string quoted(std::string_view key) {
  return "\"" + std::string(key) + "\"";
}

// Empty if there is none.
std::string problemOfKeys(const json_t* event) {
  for (const Key& key : kKeys) {
    const json_t* value = json_object_get(event, key.name);
    if (value == nullptr) {
      if (key.presence == Presence::required) {
        return quoted(key.name) + " is missing";
      }
      continue;
    }
    if (!hasType(value, key.type)) {
      return quoted(key.name) + " is not " + typeName(key.type);
    }
  }
  return {};
}

std::string problemOfMembers(json_t* event, const char* name, json_type type) {
  const char* key = nullptr;
  json_t* value = nullptr;
  json_object_foreach(json_object_get(event, name), key, value) {
    if (!hasType(value, type)) {
      return quoted(key) + " of " + quoted(name) + " is not " + typeName(type);
    }
  }
  return {};
}

std::string text(const json_t* string) {
  return {json_string_value(string), json_string_length(string)};
}

std::string textOf(const json_t* event, const char* key) {
  return text(json_object_get(event, key));
}

// Numbers are measurements; digits beyond a thousandth are noise.
double rounded(double number) {
  constexpr double kThousand = 1000.0;
  // Larger doubles have no digits beyond a thousandth.
  constexpr double kLargest = 1e13;
  return std::abs(number) < kLargest ? std::round(number * kThousand) / kThousand : number;
}

std::string numberText(const json_t* number) {
  std::array<char, 32> digits{};
  char* const end = digits.data() + digits.size();
  const auto result = json_is_integer(number)
                          ? std::to_chars(digits.data(), end, json_integer_value(number))
                          : std::to_chars(digits.data(), end, rounded(json_real_value(number)));
  return {digits.data(), result.ptr};
}

}  // namespace

const std::string* ReceivedEvent::detail(std::string_view key) const {
  for (const auto& [name, value] : details) {
    if (name == key) {
      return &value;
    }
  }
  return nullptr;
}

std::variant<ReceivedEvent, std::string> parseReceivedEvent(std::string_view body) {
  // Jansson skips this byte after a number or a literal, but the text is passed on as it came.
  if (body.find('\0') != std::string_view::npos) {
    return "not JSON: control character 0x0";
  }
  json_error_t error{};
  constexpr std::size_t kFlags = JSON_REJECT_DUPLICATES | JSON_ALLOW_NUL;
  const JSONHandle event(json_loadb(body.data(), body.size(), kFlags, &error));
  if (!event) {
    return "not JSON: " + std::string(error.text);
  }
  if (!json_is_object(event.get())) {
    return "not a JSON object";
  }
  for (const std::string& problem :
       {problemOfKeys(event.get()), problemOfMembers(event.get(), "context", JSON_STRING),
        problemOfMembers(event.get(), "metrics", JSON_REAL)}) {
    if (!problem.empty()) {
      return problem;
    }
  }
  if (textOf(event.get(), "type") != kEventType) {
    return "\"type\" is not " + quoted(kEventType);
  }

  ReceivedEvent result;
  result.messageId = textOf(event.get(), "message_id");
  result.timestamp = json_number_value(json_object_get(event.get(), "timestamp"));
  result.level = textOf(event.get(), "level");
  result.signal = textOf(event.get(), "current_signal");
  result.code = textOf(event.get(), "code");
  if (const json_t* flowId = json_object_get(event.get(), "flow_id")) {
    result.flowId = text(flowId);
  }
  result.message = textOf(event.get(), "message");
  const char* key = nullptr;
  json_t* value = nullptr;
  json_object_foreach(json_object_get(event.get(), "context"), key, value) {
    if (std::string_view(key) == kAppIdKey) {
      result.appId = text(value);
    } else {
      result.details.emplace_back(key, text(value));
    }
  }
  json_object_foreach(json_object_get(event.get(), "metrics"), key, value) {
    result.details.emplace_back(key, numberText(value));
  }
  result.json = compactJSON(body);
  return result;
}

}  // namespace ostravel::companion
