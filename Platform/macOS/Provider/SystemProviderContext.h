#pragma once

#import <NetworkExtension/NetworkExtension.h>

#include <mutex>

#include "Platform/Interface/TransparentProxyProvider.h"

namespace ostravel::macos {

// What the system does for its provider, asked of the principal object. That object makes this one,
// is held unretained, and says when it goes: work of the core that is still under way then finds a
// context that fails everything. Usable from any thread.
class SystemProviderContext final : public platform::ProviderContext {
 public:
  explicit SystemProviderContext(NETransparentProxyProvider* provider) : provider_(provider) {}

  // Returns when no call to the principal object is under way any more.
  void detach();

  void setTunnelNetworkSettings(platform::TransparentProxyNetworkSettings settings,
                                platform::ErrorCompletion completion) override;
  std::shared_ptr<platform::TCPConnection> createTCPConnection(
      const platform::HostEndpoint& endpoint, platform::TLSPolicy tls) override;
  std::optional<platform::TunnelProviderProtocol> protocolConfiguration() const override;

 private:
  mutable std::mutex lock_;
  NETransparentProxyProvider* provider_;
};

}  // namespace ostravel::macos
