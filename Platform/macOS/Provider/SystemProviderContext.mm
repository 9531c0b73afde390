#import "Platform/macOS/Provider/SystemProviderContext.h"

#include <cerrno>
#include <utility>

#import "Platform/macOS/Dispatch/SystemDispatchQueue.h"
#import "Platform/macOS/Flow/NetworkEndpoints.h"
#import "Platform/macOS/Flow/SystemTCPConnection.h"
#import "Platform/macOS/Foundation/FoundationError.h"
#import "Platform/macOS/Provider/ConfigurationValues.h"
#import "Platform/macOS/Provider/ProxyNetworkSettings.h"

namespace ostravel::macos {

namespace {

// Never inside the call that asked for it.
void failLater(platform::ErrorCompletion completion) {
  SystemDispatchQueue queue("com.ostravel.networkSettings", platform::DispatchQueueKind::serial);
  queue.async([completion = std::move(completion)] {
    completion(platform::Error{std::string(platform::kPOSIXErrorDomain), ECANCELED,
                               "The provider is gone"});
  });
}

}  // namespace

void SystemProviderContext::detach() {
  const std::lock_guard guard(lock_);
  provider_ = nil;
}

void SystemProviderContext::setTunnelNetworkSettings(
    platform::TransparentProxyNetworkSettings settings, platform::ErrorCompletion completion) {
  const std::lock_guard guard(lock_);
  if (provider_ == nil) {
    failLater(std::move(completion));
    return;
  }
  @autoreleasepool {
    // Not tied to the life of anything: the system's own start waits for this completion.
    [provider_ setTunnelNetworkSettings:makeProxyNetworkSettings(settings)
                      completionHandler:^(NSError* error) {
                        @autoreleasepool {
                          completion(errorFrom(error));
                        }
                      }];
  }
}

std::shared_ptr<platform::TCPConnection> SystemProviderContext::createTCPConnection(
    const platform::HostEndpoint& endpoint, platform::TLSPolicy tls) {
  const std::lock_guard guard(lock_);
  @autoreleasepool {
    return SystemTCPConnection::make([provider_
        createTCPConnectionToEndpoint:makeNWHostEndpoint(endpoint)
                            enableTLS:tls == platform::TLSPolicy::enabled
                        TLSParameters:nil
                             delegate:nil]);
  }
}

std::optional<platform::TunnelProviderProtocol> SystemProviderContext::protocolConfiguration()
    const {
  const std::lock_guard guard(lock_);
  @autoreleasepool {
    NEVPNProtocol* const protocol = [provider_ protocolConfiguration];
    if (![protocol isKindOfClass:[NETunnelProviderProtocol class]]) {
      return std::nullopt;
    }
    return platform::TunnelProviderProtocol{configurationFrom(
        [static_cast<NETunnelProviderProtocol*>(protocol) providerConfiguration])};
  }
}

}  // namespace ostravel::macos
