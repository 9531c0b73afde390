#import "Platform/macOS/Provider/SystemProviderContext.h"

#include <cerrno>
#include <utility>

#import "Platform/macOS/Flow/NetworkEndpoints.h"
#import "Platform/macOS/Flow/SystemTCPConnection.h"
#import "Platform/macOS/Foundation/FoundationError.h"
#import "Platform/macOS/Provider/ConfigurationValues.h"
#import "Platform/macOS/Provider/ProxyNetworkSettings.h"

namespace ostravel::macos {

SystemProviderContext::SystemProviderContext(NETransparentProxyProvider* provider)
    : provider_(provider), queue_(std::make_shared<CompletionQueue>()) {}

void SystemProviderContext::setTunnelNetworkSettings(
    platform::TransparentProxyNetworkSettings settings, platform::ErrorCompletion completion) {
  @autoreleasepool {
    const auto provider = provider_.lock();
    if (provider.get() == nil) {
      queue_->run([completion = std::move(completion)] {
        completion(platform::posixError(ECANCELED, "The provider is gone"));
      });
      return;
    }
    const auto queue = queue_;
    // Not tied to the lifetime of an object, because the system's start waits for this completion.
    // Through the queue, because the system may answer inside the call.
    [provider.get()
        setTunnelNetworkSettings:makeProxyNetworkSettings(settings)
               completionHandler:^(NSError* error) {
                 const auto heldError = Reference<NSError*>::retaining(error);
                 queue->run([completion, heldError] { completion(errorFrom(heldError.get())); });
               }];
  }
}

std::shared_ptr<platform::TCPConnection> SystemProviderContext::createTCPConnection(
    const platform::HostEndpoint& endpoint, platform::TLSPolicy tls) {
  @autoreleasepool {
    const auto provider = provider_.lock();
    return SystemTCPConnection::make([provider.get()
        createTCPConnectionToEndpoint:makeNWHostEndpoint(endpoint)
                            enableTLS:tls == platform::TLSPolicy::enabled
                        TLSParameters:nil
                             delegate:nil]);
  }
}

std::optional<platform::TunnelProviderProtocol> SystemProviderContext::protocolConfiguration()
    const {
  @autoreleasepool {
    const auto provider = provider_.lock();
    NEVPNProtocol* const protocol = [provider.get() protocolConfiguration];
    if (![protocol isKindOfClass:[NETunnelProviderProtocol class]]) {
      return std::nullopt;
    }
    return platform::TunnelProviderProtocol{configurationFrom(
        [static_cast<NETunnelProviderProtocol*>(protocol) providerConfiguration])};
  }
}

}  // namespace ostravel::macos
