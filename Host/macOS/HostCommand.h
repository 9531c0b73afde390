#pragma once

#include <optional>
#include <string>
#include <variant>

namespace ostravel::host {

enum class HostAction { activate, deactivate, status };

// The command line asks how it is to be used.
struct HelpRequest {};

// Why a command line makes no sense: one printable line for its author.
struct CommandLineError {
  std::string reason;
};

// What the host application is asked to do on its command line.
struct HostCommand {
  HostAction action;
  // Where the extension sends its events; absent: nowhere. An absolute path in UTF-8 that fits into
  // a socket address.
  std::optional<std::string> monitoringSocketPath;

  static std::variant<HostCommand, HelpRequest, CommandLineError> parse(int argc,
                                                                        const char* const* argv);
};

}  // namespace ostravel::host
