#pragma once

#include <optional>

#include "Platform/Interface/AppProxyFlow.h"
#include "Platform/Interface/HostEndpoint.h"

namespace ostravel::platform {

// The datagrams of one UDP socket of an application. Closing both directions refuses it.
class AppProxyUDPFlow : public AppProxyFlow {
 public:
  // The application's side, the only fixed one for UDP; absent if unknown.
  virtual std::optional<HostEndpoint> localEndpoint() const = 0;
};

}  // namespace ostravel::platform
