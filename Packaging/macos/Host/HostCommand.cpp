#include "Packaging/macos/Host/HostCommand.h"

#include <span>
#include <string_view>

namespace ostravel::host {

std::optional<HostCommand> HostCommand::parse(int argc, const char* const* argv) {
  const std::span arguments(argv, static_cast<std::size_t>(argc));
  if (arguments.size() == 2) {
    const std::string_view name = arguments[1];
    if (name == "activate") {
      return HostCommand{HostAction::activate, std::nullopt};
    }
    if (name == "deactivate") {
      return HostCommand{HostAction::deactivate, std::nullopt};
    }
    if (name == "status") {
      return HostCommand{HostAction::status, std::nullopt};
    }
  }
  if (arguments.size() == 4 && std::string_view(arguments[1]) == "activate" &&
      std::string_view(arguments[2]) == "--monitoring-socket") {
    return HostCommand{HostAction::activate, arguments[3]};
  }
  return std::nullopt;
}

}  // namespace ostravel::host
