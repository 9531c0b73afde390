#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "Base/FlowIdentifier.h"
#include "Base/SharedTexts.h"
#include "Extension/FilterDataProvider/DomainList.h"
#include "Extension/FilterDataProvider/FlowDecisionCache.h"
#include "Extension/FilterDataProvider/OVTunnelConnection.h"
#include "Extension/ProxyTunnelCore/MonitoringEventKind.h"
#include "Extension/ProxyTunnelCore/ProxyHealthMonitor.h"
#include "Extension/ProxyTunnelCore/ProxySafetyGate.h"
#include "Extension/ProxyTunnelCore/ProxyTCPReachabilityProbe.h"
#include "Extension/ProxyTunnelCore/ProxyTunnelAdmissionController.h"
#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringClient.h"
#include "Platform/Interface/Platform.h"
#include "Platform/Interface/SystemLimits.h"
#include "Platform/Interface/TransparentProxyProvider.h"

namespace ostravel {

// The principal object: decides for every new flow whether it goes directly to its destination, is
// refused, or is carried through the local proxy, and preserves the system's connectivity while the
// proxy is down.
//
// One per process, created and owned by the platform; started and stopped once each. Owns its
// settings, its queues and every live tunnel. handleNewFlow may be called on any thread and never
// waits. All settings are built in, except the monitoring socket path.
class PacketTunnelProvider final : public platform::TransparentProxyProvider {
 public:
  enum class FlowAction {
    // The system handles the flow directly.
    bypass,
    // A UDP flow is taken and closed at once, so that the application falls back to TCP.
    dropUDP,
    // A TCP flow is relayed through the local proxy.
    proxyTCP,
  };

  PacketTunnelProvider(platform::Platform& platform, platform::ProviderContext& context);
  ~PacketTunnelProvider() override;

  void startProxy(std::optional<platform::ProviderConfiguration> options,
                  platform::ErrorCompletion completion) override;
  // Forgets the tunnels without closing them; they end on their own or with the process.
  void stopProxy(platform::ProviderStopReason reason, std::function<void()> completion) override;
  bool handleNewFlow(std::shared_ptr<platform::AppProxyFlow> flow) override;

  // Selects the flows that the platform offers.
  static platform::TransparentProxyNetworkSettings networkSettings();

  // Whether new flows may go to the local proxy; absent until the first probe has been answered.
  // Usable from any thread.
  std::optional<bool> isGateOpen() const;

  // The results of the health loop. Times are seconds since 1970. Usable from any thread, as are
  // the counts below.
  struct Health {
    // Absent until the first probe has been answered.
    std::optional<bool> isGateOpen;
    double gateSince = 0;
    struct Probe {
      double time = 0;
      bool isReachable = false;
    };
    std::optional<Probe> lastProbe;
  };
  Health health() const;
  ProxyTunnelMonitoringClient::Counts eventCounts() const { return monitoringClient_->counts(); }

  // The rule that would decide about a new flow now. Does not change the cache. remote: as in a
  // flow.
  platform::FlowRule explain(std::string_view appId, const platform::HostEndpoint& remote,
                             bool isUDP) const;

  // The decision by the built-in lists only. Depends only on its arguments.
  FlowAction determineNormalFlowAction(std::string_view appId, std::string_view host,
                                       bool isUDP) const;

  struct FlowDecision {
    FlowAction action;
    // Why, for statistics.
    platform::FlowRule rule;
  };
  // The effective decision: cached for 30 seconds, and overridden by the safety gate. appId is
  // trimmed; host is as the flow reports it.
  FlowDecision decideFlow(std::string_view appId, std::string_view host, bool isUDP);
  FlowAction decideFlowAction(std::string_view appId, std::string_view host, bool isUDP) {
    return decideFlow(appId, host, isUDP).action;
  }

 private:
  friend class PacketTunnelProviderTestPeer;

  using Metrics = ProxyTunnelMonitoringEvent::Metrics;
  using Context = ProxyTunnelMonitoringEvent::Context;

  // Texts that are found by a view.
  struct TextHash {
    using is_transparent = void;

    std::size_t operator()(std::string_view text) const {
      return std::hash<std::string_view>{}(text);
    }
  };
  using TextSet = std::unordered_set<std::string, TextHash, std::equal_to<>>;

  // A tunnel is identified, and found, by its flow.
  struct TunnelHash {
    using is_transparent = void;

    std::size_t operator()(const FlowIdentifier& flowId) const noexcept {
      return FlowIdentifier::Hash()(flowId);
    }
    std::size_t operator()(const std::shared_ptr<OVTunnelConnection>& tunnel) const noexcept {
      return (*this)(tunnel->flowId());
    }
  };
  struct TunnelEqual {
    using is_transparent = void;

    static const FlowIdentifier& idOf(const FlowIdentifier& flowId) { return flowId; }
    static const FlowIdentifier& idOf(const std::shared_ptr<OVTunnelConnection>& tunnel) {
      return tunnel->flowId();
    }
    template <typename Left, typename Right>
    bool operator()(const Left& left, const Right& right) const {
      return idOf(left) == idOf(right);
    }
  };

  std::shared_ptr<PacketTunnelProvider> self();
  std::weak_ptr<PacketTunnelProvider> weakSelf();

  std::optional<std::string> resolveMonitoringSocketPath() const;

  void startProxyHealthMonitoring();
  void stopProxyHealthMonitoring();
  void probeProxyHealth();
  ProxyHealthMonitor& proxyHealthMonitor();
  ProxyTCPReachabilityProbe& proxyReachabilityProbe();
  void emitProxyHealthEvent(ProxyHealthEvent event);
  // Records the gate's state; called after it may have changed.
  void noteGate();

  std::optional<FlowDecision> cachedDecision(std::string_view key, double now);
  void storeDecision(std::string key, FlowDecision decision, double now);
  FlowAction applyProxySafetyGate(FlowAction action, bool isUDP) const;
  // The rule of the built-in lists.
  platform::FlowRule normalRule(std::string_view appId, std::string_view host, bool isUDP) const;
  static FlowAction actionOf(platform::FlowRule rule);
  static void noteDecision(platform::AppProxyFlow& flow, platform::FlowRule rule);

  bool isLocalProxy(const platform::HostEndpoint& endpoint) const;
  void openFlow(const std::shared_ptr<platform::AppProxyTCPFlow>& flow, const std::string& appId);
  void startTunnel(const std::shared_ptr<platform::AppProxyTCPFlow>& flow,
                   const std::string& appId);
  Reference<const OVTunnelConnection::Common> tunnelsCommon();
  Reference<const OVTunnelConnection::Common> makeTunnelsCommon();
  void forgetTunnel(const FlowIdentifier& flowId);
  void rejectFlow(platform::AppProxyTCPFlow& flow, const std::string& flowId,
                  const std::string& appId);
  void tunnelDidClose(const FlowIdentifier& flowId);

  void emit(const MonitoringEventKind& kind, std::optional<Context> context = std::nullopt,
            std::optional<Metrics> metrics = std::nullopt,
            std::optional<std::string> flowId = std::nullopt);

  platform::Platform& platform_;
  const std::shared_ptr<platform::Log> log_;
  const bool httpsOnlyMode_ = false;
  const TextSet bypassAppIds_;
  const DomainList hardBypassDomains_;
  const DomainList realtimeMediaDomains_;
  const DomainList udpQuicPolicyDomains_;
  const std::string proxyHost_{platform::limits::kProxyHost};
  const std::uint16_t proxyPort_ = platform::limits::kProxyPort;
  const double connectHandshakeTimeoutSeconds_ =
      std::chrono::duration<double>(platform::limits::kHandshakeTimeout).count();
  SharedTexts applications_;
  std::mutex tunnelsCommonLock_;
  // Guarded by tunnelsCommonLock_; made for the first tunnel, and holds the provider weakly.
  Reference<const OVTunnelConnection::Common> tunnelsCommon_;
  // Changed only by barrier items of its queue.
  std::unordered_set<std::shared_ptr<OVTunnelConnection>, TunnelHash, TunnelEqual> activeTunnels_;
  const std::shared_ptr<platform::DispatchQueue> activeTunnelsQueue_;
  ProxyTunnelAdmissionController tunnelAdmissionController_;
  const std::shared_ptr<ProxyTunnelMonitoringClient> monitoringClient_;
  // Starts closed: nothing is proxied before the first successful probe.
  const std::shared_ptr<ProxySafetyGate> proxySafetyGate_;
  std::atomic<bool> hasProbed_ = false;
  mutable std::mutex healthLock_;
  // Guarded by healthLock_.
  Health health_;
  // Created on first use, on the health queue.
  std::optional<ProxyHealthMonitor> proxyHealthMonitor_;
  std::optional<ProxyTCPReachabilityProbe> proxyReachabilityProbe_;
  const std::shared_ptr<platform::DispatchQueue> proxyHealthQueue_;
  std::shared_ptr<platform::DispatchTimer> proxyHealthTimer_;
  const std::shared_ptr<platform::DispatchQueue> bypassCacheQueue_;
  // Changed only by barrier items of its queue. Contains every kind of decision, before the safety
  // gate is applied, whose state is never cached.
  FlowDecisionCache<FlowDecision> bypassCache_;
};

}  // namespace ostravel
