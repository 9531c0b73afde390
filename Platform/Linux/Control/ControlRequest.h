#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace ostravel::linuxplatform {

// Why a request was rejected: a code of Documentation/control.md, and a sentence.
struct ControlError {
  std::string code;
  std::string message;
};

// One request of the control socket. Documentation/control.md describes its members.
struct ControlRequest {
  enum class Kind : std::uint8_t { status, decisions, tunnels, explain, reload };

  static constexpr int kVersion = 1;
  static constexpr std::size_t kLongestLine = 4096;
  static constexpr std::size_t kMostDecisions = 1000;
  static constexpr std::size_t kMostTunnels = 10'000;

  Kind kind = Kind::status;
  std::optional<std::uint64_t> after = std::nullopt;
  std::optional<double> updatedAfter = std::nullopt;
  std::size_t limit = 0;
  std::optional<pid_t> pid = std::nullopt;
  std::optional<std::string> path = std::nullopt;
  std::optional<std::string> host = std::nullopt;
  std::uint16_t port = 443;
  bool isUDP = false;

  // line: without its line feed.
  static std::variant<ControlRequest, ControlError> parse(std::string_view line);
};

// Its name in a request.
std::string_view nameOf(ControlRequest::Kind kind);

}  // namespace ostravel::linuxplatform
