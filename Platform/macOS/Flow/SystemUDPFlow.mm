#import "Platform/macOS/Flow/SystemUDPFlow.h"

#import "Platform/macOS/Flow/NetworkEndpoints.h"

namespace ostravel::macos {

std::optional<platform::HostEndpoint> SystemUDPFlow::localEndpoint() const {
  @autoreleasepool {
    return hostEndpointFrom([flow() localEndpoint]);
  }
}

}  // namespace ostravel::macos
