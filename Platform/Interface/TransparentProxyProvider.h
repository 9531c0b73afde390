#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "Platform/Interface/AppProxyFlow.h"
#include "Platform/Interface/Completion.h"
#include "Platform/Interface/HostEndpoint.h"
#include "Platform/Interface/NetworkSettings.h"
#include "Platform/Interface/ProviderConfiguration.h"
#include "Platform/Interface/TCPConnection.h"

namespace ostravel::platform {

// Why the system stops a provider; the raw values are the platform's.
enum class ProviderStopReason : std::int64_t {
  none = 0,
  userInitiated = 1,
  providerFailed = 2,
};

enum class TLSPolicy { disabled, enabled };

// The system's services to its provider. Outlives the provider.
class ProviderContext {
 public:
  ProviderContext() = default;
  ProviderContext(const ProviderContext&) = delete;
  ProviderContext& operator=(const ProviderContext&) = delete;
  virtual ~ProviderContext() = default;

  virtual void setTunnelNetworkSettings(TransparentProxyNetworkSettings settings,
                                        ErrorCompletion completion) = 0;
  virtual std::shared_ptr<TCPConnection> createTCPConnection(const HostEndpoint& endpoint,
                                                             TLSPolicy tls) = 0;
  // Absent when the system has set the provider up as something other than a tunnel provider.
  virtual std::optional<TunnelProviderProtocol> protocolConfiguration() const = 0;
};

// The base class of the provider: the system calls the public operations, the provider calls the
// protected ones. Held by std::shared_ptr; the system's side owns it.
class TransparentProxyProvider : public std::enable_shared_from_this<TransparentProxyProvider> {
 public:
  explicit TransparentProxyProvider(ProviderContext& context) : context_(context) {}
  TransparentProxyProvider(const TransparentProxyProvider&) = delete;
  TransparentProxyProvider& operator=(const TransparentProxyProvider&) = delete;
  virtual ~TransparentProxyProvider() = default;

  // completion is called exactly once.
  virtual void startProxy(std::optional<ProviderConfiguration> options,
                          ErrorCompletion completion) = 0;
  // completion is called exactly once.
  virtual void stopProxy(ProviderStopReason reason, std::function<void()> completion) = 0;
  // True: the provider has taken the flow. False: the system handles it.
  virtual bool handleNewFlow(std::shared_ptr<AppProxyFlow> flow) = 0;

 protected:
  void setTunnelNetworkSettings(TransparentProxyNetworkSettings settings,
                                ErrorCompletion completion) {
    context_.setTunnelNetworkSettings(std::move(settings), std::move(completion));
  }
  std::shared_ptr<TCPConnection> createTCPConnection(const HostEndpoint& endpoint, TLSPolicy tls) {
    return context_.createTCPConnection(endpoint, tls);
  }
  std::optional<TunnelProviderProtocol> protocolConfiguration() const {
    return context_.protocolConfiguration();
  }

 private:
  ProviderContext& context_;
};

}  // namespace ostravel::platform
