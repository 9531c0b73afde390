#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace ostravel::host {

enum class HostAction { activate, deactivate, status };

// The command line asks for the usage.
struct HelpRequest {};

// Why a command line is invalid: one printable line for the user.
struct CommandLineError {
  std::string reason;
};

// The only folder in which the extension, which is in the sandbox, reaches a socket; its
// entitlements name it. An administrator makes it, for the user whose program listens there.
inline constexpr std::string_view kMonitoringSocketFolder =
    "/Library/Application Support/Ostravel/";
inline constexpr std::string_view kDefaultMonitoringSocketName = "monitoring.sock";

// What the host application is asked to do on its command line.
struct HostCommand {
  HostAction action;
  // Where the extension sends its events; absent: nowhere. An absolute path in UTF-8 that fits into
  // a socket address.
  std::optional<std::string> monitoringSocketPath;

  // Whether the extension can reach the socket from its sandbox; true without a socket.
  bool isMonitoringSocketInReach() const;

  static std::variant<HostCommand, HelpRequest, CommandLineError> parse(int argc,
                                                                        const char* const* argv);
};

}  // namespace ostravel::host
