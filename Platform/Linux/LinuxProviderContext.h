#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Platform/Interface/Platform.h"
#include "Platform/Interface/TransparentProxyProvider.h"
#include "Platform/Linux/Interception/Interceptor.h"

namespace ostravel::linuxplatform {

// Linux's side of the provider: implements its network settings by interception, offers it the
// intercepted flows, and creates its connections. Owned by the process entry; outlives the
// provider.
class LinuxProviderContext final : public platform::ProviderContext {
 public:
  // configuration: the provider's. environment outlives this object.
  LinuxProviderContext(platform::Platform& platform, Interceptor::Environment environment,
                       std::optional<platform::ProviderConfiguration> configuration);
  ~LinuxProviderContext() override;

  // The provider that flows are offered to; held weakly. Set it before the provider requests
  // network settings.
  void setProvider(std::weak_ptr<platform::TransparentProxyProvider> provider);

  // Reads the applications' registrations again, for later flows. Without interception it does
  // nothing, because interception reads them when it starts. False if the current ones remain in
  // effect.
  bool reloadRegistrations();

  // The state of interception, and the identification of a process or an executable. Called on any
  // thread but an event loop's; empty without interception, or if there is no answer within
  // kInspectionTimeout.
  static constexpr std::chrono::seconds kInspectionTimeout{1};
  std::optional<Interceptor::Inspection> inspect(
      std::optional<pid_t> process, std::optional<std::string> executable = std::nullopt);
  bool isIntercepting() const { return isIntercepting_; }

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
  std::atomic<bool> isIntercepting_ = false;
};

}  // namespace ostravel::linuxplatform
