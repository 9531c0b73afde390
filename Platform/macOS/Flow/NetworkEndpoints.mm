#import "Platform/macOS/Flow/NetworkEndpoints.h"

#import "Platform/macOS/Foundation/FoundationText.h"

namespace ostravel::macos {

std::optional<platform::HostEndpoint> hostEndpointFrom(NWEndpoint* endpoint) {
  if (![endpoint isKindOfClass:[NWHostEndpoint class]]) {
    return std::nullopt;
  }
  NWHostEndpoint* const host = static_cast<NWHostEndpoint*>(endpoint);
  return platform::HostEndpoint{textOf([host hostname]), textOf([host port])};
}

NWHostEndpoint* makeNWHostEndpoint(const platform::HostEndpoint& endpoint) {
  return [NWHostEndpoint endpointWithHostname:makeString(endpoint.hostname)
                                         port:makeString(endpoint.port)];
}

}  // namespace ostravel::macos
