#import "Platform/macOS/SystemUDPFlow.h"

#import "Platform/macOS/NetworkEndpoints.h"

namespace ostravel::macos {

std::optional<platform::HostEndpoint> SystemUDPFlow::localEndpoint() const {
  @autoreleasepool {
    return hostEndpointFrom([flow() localEndpoint]);
  }
}

}  // namespace ostravel::macos
