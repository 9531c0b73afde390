#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace ostravel::host {

enum class HostAction { activate, deactivate, status };

// The command line requests the usage.
struct HelpRequest {};

// Why a command line is invalid: one printable line for the user.
struct CommandLineError {
  std::string reason;
};

// The only folder in which the sandboxed extension can reach a socket; its entitlements name it. An
// administrator creates it for the user whose program listens there.
inline constexpr std::string_view kMonitoringSocketFolder =
    "/Library/Application Support/Ostravel/";
inline constexpr std::string_view kDefaultMonitoringSocketName = "monitoring.sock";

// The host application's command line.
struct HostCommand {
  HostAction action;
  // The socket to which the extension sends its events; absent for none. An absolute path in UTF-8
  // that fits into a socket address.
  std::optional<std::string> monitoringSocketPath;

  // True if the extension can reach the socket from its sandbox, or if there is no socket.
  bool isMonitoringSocketInReach() const;

  static std::variant<HostCommand, HelpRequest, CommandLineError> parse(int argc,
                                                                        const char* const* argv);
};

}  // namespace ostravel::host
