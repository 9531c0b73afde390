#pragma once

#include <memory>
#include <mutex>
#include <optional>

#include "Platform/Interface/Platform.h"
#include "Platform/Interface/TransparentProxyProvider.h"
#include "Platform/Linux/Interception/Interceptor.h"

namespace ostravel::linuxplatform {

// Linux's side of the provider: implements its network settings by interception, offers it the
// intercepted flows, and creates its connections. Owned by the process entry; outlives the
// provider.
class LinuxProviderContext final : public platform::ProviderContext {
 public:
  // configuration: returned to the provider as its own. environment outlives this object.
  LinuxProviderContext(platform::Platform& platform, Interceptor::Environment environment,
                       std::optional<platform::ProviderConfiguration> configuration);
  ~LinuxProviderContext() override;

  // The provider that flows are offered to; held weakly. Set it before the provider requests
  // network settings.
  void setProvider(std::weak_ptr<platform::TransparentProxyProvider> provider);

  // Reads the applications' registrations again, for later flows. Does nothing while nothing is
  // intercepted, because interception reads them when it starts.
  void reloadRegistrations();

  // Removes every rule and releases every held packet. Nothing is offered after it returns.
  void stopInterception();

  // Replaces any current interception. Runs on a separate queue.
  void setTunnelNetworkSettings(platform::TransparentProxyNetworkSettings settings,
                                platform::ErrorCompletion completion) override;
  std::shared_ptr<platform::TCPConnection> createTCPConnection(
      const platform::HostEndpoint& endpoint, platform::TLSPolicy tls) override;
  std::optional<platform::TunnelProviderProtocol> protocolConfiguration() const override;

 private:
  platform::OptionalError tryToStartInterception(
      const platform::TransparentProxyNetworkSettings& settings);
  platform::OptionalError startInterception(
      const platform::TransparentProxyNetworkSettings& settings);

  const Interceptor::Environment environment_;
  const std::optional<platform::ProviderConfiguration> configuration_;
  const std::shared_ptr<platform::Log> log_;
  const std::shared_ptr<platform::DispatchQueue> settingsQueue_;
  std::weak_ptr<platform::TransparentProxyProvider> provider_;
  // Guards interceptor_ and isStopped_.
  std::mutex lock_;
  std::unique_ptr<Interceptor> interceptor_;
  bool isStopped_ = false;
};

}  // namespace ostravel::linuxplatform
