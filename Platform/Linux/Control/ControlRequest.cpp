#include "Platform/Linux/Control/ControlRequest.h"

#include <array>
#include <limits>

#include "Base/JSONHandle.h"

namespace ostravel::linuxplatform {

namespace {

using Kind = ControlRequest::Kind;

constexpr std::array kKinds{Kind::status, Kind::decisions, Kind::tunnels, Kind::explain,
                            Kind::reload};
constexpr std::size_t kUsualDecisions = 100;
constexpr std::size_t kUsualTunnels = 1000;

// Reads the members of a request, and keeps the first problem.
class Members {
 public:
  explicit Members(const json_t* object) : object_(object) {}

  const std::optional<ControlError>& problem() const { return problem_; }

  template <typename Number>
  std::optional<Number> integer(const char* key, json_int_t least, json_int_t most) {
    const json_t* const value = json_object_get(object_, key);
    if (value == nullptr) {
      return std::nullopt;
    }
    const json_int_t number = json_integer_value(value);
    if (!json_is_integer(value) || number < least || number > most) {
      refuse(key, "an integer from " + std::to_string(least) + " to " + std::to_string(most));
      return std::nullopt;
    }
    return static_cast<Number>(number);
  }

  std::optional<double> number(const char* key) {
    const json_t* const value = json_object_get(object_, key);
    if (value != nullptr && !json_is_number(value)) {
      refuse(key, "a number");
      return std::nullopt;
    }
    return value == nullptr ? std::nullopt : std::optional(json_number_value(value));
  }

  std::optional<std::string> text(const char* key) {
    const json_t* const value = json_object_get(object_, key);
    if (value != nullptr && (!json_is_string(value) || json_string_length(value) == 0)) {
      refuse(key, "a string that is not empty");
      return std::nullopt;
    }
    return value == nullptr ? std::nullopt
                            : std::optional<std::string>(std::in_place, json_string_value(value),
                                                         json_string_length(value));
  }

  void refuse(const std::string& key, const std::string& wanted) {
    if (!problem_) {
      problem_ = ControlError{"bad_request", "\"" + key + "\" has to be " + wanted};
    }
  }

 private:
  const json_t* object_;
  std::optional<ControlError> problem_;
};

void readExplain(Members& members, ControlRequest& request) {
  request.pid = members.integer<pid_t>("pid", 1, std::numeric_limits<pid_t>::max());
  request.path = members.text("path");
  request.host = members.text("host");
  request.port =
      members.integer<std::uint16_t>("port", 1, std::numeric_limits<std::uint16_t>::max())
          .value_or(request.port);
  const std::string protocol = members.text("protocol").value_or("tcp");
  request.isUDP = protocol == "udp";
  if (protocol != "tcp" && protocol != "udp") {
    members.refuse("protocol", "\"tcp\" or \"udp\"");
  }
  if (!request.pid && !request.path && !request.host) {
    members.refuse("host", "given, or \"pid\", or \"path\"");
  }
  if (request.pid && request.path) {
    members.refuse("path", "left out beside \"pid\"");
  }
}

void readMembers(Members& members, ControlRequest& request) {
  constexpr auto kLargest = std::numeric_limits<json_int_t>::max();
  switch (request.kind) {
    case Kind::decisions:
      request.after = members.integer<std::uint64_t>("after", 0, kLargest);
      request.updatedAfter = members.number("updated_after");
      request.limit = members.integer<std::size_t>("limit", 1, ControlRequest::kMostDecisions)
                          .value_or(kUsualDecisions);
      break;
    case Kind::tunnels:
      request.limit = members.integer<std::size_t>("limit", 1, ControlRequest::kMostTunnels)
                          .value_or(kUsualTunnels);
      break;
    case Kind::explain:
      readExplain(members, request);
      break;
    case Kind::status:
    case Kind::reload:
      break;
  }
}

std::optional<Kind> kindNamed(std::string_view name) {
  for (const Kind kind : kKinds) {
    if (nameOf(kind) == name) {
      return kind;
    }
  }
  return std::nullopt;
}

}  // namespace

std::variant<ControlRequest, ControlError> ControlRequest::parse(std::string_view line) {
  const JSONHandle object(json_loadb(line.data(), line.size(), JSON_REJECT_DUPLICATES, nullptr));
  if (!json_is_object(object.get())) {
    return ControlError{"bad_request", "the request is not one JSON object on one line"};
  }
  Members members(object.get());
  const auto version =
      members.integer<json_int_t>("version", 0, std::numeric_limits<json_int_t>::max());
  if (!version) {
    members.refuse("version", "an integer");
    return *members.problem();
  }
  if (*version != kVersion) {
    return ControlError{"unsupported_version",
                        "only version " + std::to_string(kVersion) + " is understood"};
  }
  const auto name = members.text("request");
  if (!name) {
    members.refuse("request", "a string");
    return *members.problem();
  }
  const auto kind = kindNamed(*name);
  if (!kind) {
    return ControlError{"unknown_request", "there is no such request"};
  }
  ControlRequest request{.kind = *kind};
  readMembers(members, request);
  if (members.problem()) {
    return *members.problem();
  }
  return request;
}

std::string_view nameOf(ControlRequest::Kind kind) {
  switch (kind) {
    case Kind::status:
      return "status";
    case Kind::decisions:
      return "decisions";
    case Kind::tunnels:
      return "tunnels";
    case Kind::explain:
      return "explain";
    case Kind::reload:
      return "reload";
  }
  return "unknown";
}

}  // namespace ostravel::linuxplatform
