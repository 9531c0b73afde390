#pragma once

#import <NetworkExtension/NetworkExtension.h>

#include <memory>

#include "Platform/Interface/TransparentProxyProvider.h"
#import "Platform/macOS/Dispatch/CompletionQueue.h"
#import "Platform/macOS/Foundation/WeakReference.h"

namespace ostravel::macos {

// The system's services to its provider, requested from the principal object, which creates this
// one and is held weakly. Once that object has been destroyed, every request fails. Usable from any
// thread.
//
// An operation may release the last reference to the principal object, which then releases the
// core's provider and is destroyed before the operation returns.
class SystemProviderContext final : public platform::ProviderContext {
 public:
  explicit SystemProviderContext(NETransparentProxyProvider* provider);

  void setTunnelNetworkSettings(platform::TransparentProxyNetworkSettings settings,
                                platform::ErrorCompletion completion) override;
  std::shared_ptr<platform::TCPConnection> createTCPConnection(
      const platform::HostEndpoint& endpoint, platform::TLSPolicy tls) override;
  std::optional<platform::TunnelProviderProtocol> protocolConfiguration() const override;

 private:
  const WeakReference<NETransparentProxyProvider*> provider_;
  const std::shared_ptr<CompletionQueue> queue_;
};

}  // namespace ostravel::macos
