#pragma once

#include "Platform/Interface/AppProxyUDPFlow.h"
#import "Platform/macOS/Flow/SystemFlow.h"

namespace ostravel::macos {

// A UDP flow of the system.
class SystemUDPFlow final : public SystemFlow<platform::AppProxyUDPFlow, NEAppProxyUDPFlow> {
 public:
  using SystemFlow::SystemFlow;

  std::optional<platform::HostEndpoint> localEndpoint() const override;
};

}  // namespace ostravel::macos
