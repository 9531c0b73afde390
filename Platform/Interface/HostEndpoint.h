#pragma once

#include <string>

namespace ostravel::platform {

// A host name or address literal and a port, both as text. An endpoint of any other kind is an
// absent std::optional<HostEndpoint>.
struct HostEndpoint {
  std::string hostname;
  std::string port;

  friend bool operator==(const HostEndpoint&, const HostEndpoint&) = default;
};

}  // namespace ostravel::platform
