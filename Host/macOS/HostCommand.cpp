#include "Host/macOS/HostCommand.h"

#include <cstddef>
#include <span>
#include <string_view>

#include "Base/PrintableText.h"
#include "Base/UTF8.h"
#include "Extension/ProxyTunnelCore/SocketAddress.h"

namespace ostravel::host {

namespace {

using ParsedCommand = std::variant<HostCommand, HelpRequest, CommandLineError>;

// Without the terminator.
constexpr std::size_t kLongestSocketPath = kLocalSocketPathCapacity - 1;

constexpr std::string_view kMonitoringSocketOption = "--monitoring-socket";

std::string quoted(std::string_view text) {
  return "\"" + printableText(text) + "\"";
}

// Empty if the path is valid.
std::string problemOfSocketPath(std::string_view path) {
  if (!path.starts_with('/')) {
    return "is not an absolute path";
  }
  if (path.size() > kLongestSocketPath) {
    return "has " + std::to_string(path.size()) + " bytes; a socket's path has at most " +
           std::to_string(kLongestSocketPath);
  }
  if (!isWellFormedUTF8(path)) {
    return "is not UTF-8";
  }
  return "";
}

ParsedCommand parseActivation(std::span<const char* const> options) {
  if (options.empty()) {
    return HostCommand{HostAction::activate, std::nullopt};
  }
  if (options[0] != kMonitoringSocketOption) {
    return CommandLineError{"unexpected argument " + quoted(options[0])};
  }
  if (options.size() == 1) {
    return HostCommand{HostAction::activate, std::string(kMonitoringSocketFolder) +
                                                 std::string(kDefaultMonitoringSocketName)};
  }
  if (options.size() > 2) {
    return CommandLineError{"unexpected argument " + quoted(options[2])};
  }
  const std::string_view path = options[1];
  if (const std::string problem = problemOfSocketPath(path); !problem.empty()) {
    return CommandLineError{std::string(kMonitoringSocketOption) + ": " + quoted(path) + " " +
                            problem};
  }
  return HostCommand{HostAction::activate, std::string(path)};
}

ParsedCommand withoutOptions(ParsedCommand command, std::span<const char* const> options) {
  if (!options.empty()) {
    return CommandLineError{"unexpected argument " + quoted(options[0])};
  }
  return command;
}

}  // namespace

bool HostCommand::isMonitoringSocketInReach() const {
  return !monitoringSocketPath || monitoringSocketPath->starts_with(kMonitoringSocketFolder);
}

ParsedCommand HostCommand::parse(int argc, const char* const* argv) {
  const std::span arguments(argv, static_cast<std::size_t>(argc));
  if (arguments.size() < 2) {
    return CommandLineError{"a command is missing"};
  }
  const std::string_view name = arguments[1];
  const auto options = arguments.subspan(2);
  if (name == "activate") {
    return parseActivation(options);
  }
  if (name == "deactivate") {
    return withoutOptions(HostCommand{HostAction::deactivate, std::nullopt}, options);
  }
  if (name == "status") {
    return withoutOptions(HostCommand{HostAction::status, std::nullopt}, options);
  }
  if (name == "--help") {
    return withoutOptions(HelpRequest{}, options);
  }
  return CommandLineError{"there is no command " + quoted(name)};
}

}  // namespace ostravel::host
