#pragma once

#include <optional>
#include <string>

namespace ostravel::host {

enum class HostAction { activate, deactivate, status };

// What the host application is asked to do on its command line.
struct HostCommand {
  HostAction action;
  // Where the extension sends its events; absent: nowhere.
  std::optional<std::string> monitoringSocketPath;

  // Absent when the command line makes no sense.
  static std::optional<HostCommand> parse(int argc, const char* const* argv);
};

}  // namespace ostravel::host
