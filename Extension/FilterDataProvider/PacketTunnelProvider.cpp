#include "Extension/FilterDataProvider/PacketTunnelProvider.h"

#include <chrono>
#include <cstddef>
#include <utility>
#include <variant>

#include "Extension/FilterDataProvider/BuiltInLists.h"
#include "Extension/ProxyTunnelCore/ExtensionLog.h"
#include "Platform/Interface/AppProxyTCPFlow.h"
#include "Platform/Interface/AppProxyUDPFlow.h"
#include "Platform/Interface/ProviderError.h"

namespace ostravel {

using platform::AppProxyFlow;
using platform::AppProxyTCPFlow;
using platform::AppProxyUDPFlow;
using platform::DispatchQueueKind;
using platform::Error;
using platform::ErrorCompletion;
using platform::HostEndpoint;
using platform::NetworkRule;
using platform::NetworkRuleProtocol;
using platform::OptionalError;

namespace {

using namespace std::chrono_literals;

constexpr std::string_view kMonitoringSocketPathKey = "monitoringSocketPath";

constexpr auto kProbeInterval = 1s;
constexpr auto kProbeLeeway = 150ms;
// Short enough that a tick is over before the next one is due.
constexpr std::chrono::duration<double> kProbeTimeout = 350ms;

constexpr double kBypassCacheLifetimeSeconds = 30.0;

NetworkRule rule(std::string_view address, std::string_view port, std::uint8_t prefix,
                 NetworkRuleProtocol protocol) {
  return {{std::string(address), std::string(port)}, prefix, protocol};
}

}  // namespace

// Lifecycle

PacketTunnelProvider::PacketTunnelProvider(platform::Platform& platform,
                                           platform::ProviderContext& context)
    : TransparentProxyProvider(context),
      platform_(platform),
      log_(makeExtensionLog(platform)),
      bypassAppIds_(built_in::bypassAppIds()),
      hardBypassDomains_(built_in::hardBypassDomains(), platform.text()),
      realtimeMediaDomains_(built_in::realtimeMediaDomains(), platform.text()),
      udpQuicPolicyDomains_(built_in::realtimeMediaDomains(), platform.text()),
      activeTunnelsQueue_(
          platform.makeQueue("com.ostravel.activeTunnels", DispatchQueueKind::concurrent)),
      monitoringClient_(std::make_shared<ProxyTunnelMonitoringClient>(
          platform, std::nullopt,
          platform.makeQueue("com.ostravel.proxyTunnelMonitoring", DispatchQueueKind::serial),
          ProxyTunnelMonitoringFrameEncoder())),
      proxySafetyGate_(std::make_shared<ProxySafetyGate>(/*proxyUnavailable=*/true,
                                                         /*networkUnavailable=*/false)),
      proxyHealthQueue_(platform.makeQueue("com.ostravel.proxyHealth", DispatchQueueKind::serial)),
      bypassCacheQueue_(
          platform.makeQueue("com.ostravel.bypassCache", DispatchQueueKind::concurrent)) {
  log_->info("OstravelProxy: init()");
}

PacketTunnelProvider::~PacketTunnelProvider() {
  log_->info("OstravelProxy: deinit");
}

std::shared_ptr<PacketTunnelProvider> PacketTunnelProvider::self() {
  return std::static_pointer_cast<PacketTunnelProvider>(shared_from_this());
}

std::weak_ptr<PacketTunnelProvider> PacketTunnelProvider::weakSelf() {
  return self();
}

void PacketTunnelProvider::startProxy(std::optional<platform::ProviderConfiguration> /*options*/,
                                      ErrorCompletion completion) {
  log_->info("OstravelProxy: Starting Proxy provider...");
  monitoringClient_->updateSocketPath(resolveMonitoringSocketPath());
  startProxyHealthMonitoring();
  emit(monitoring_events::kProviderStarted);

  auto settings = makeNetworkSettings();
  log_->info(
      "OstravelProxy: Rules summary included=%{public}d excluded=%{public}d "
      "httpsOnly=%{public}s",
      {static_cast<std::int64_t>(settings.includedNetworkRules.size()),
       static_cast<std::int64_t>(settings.excludedNetworkRules.size()),
       httpsOnlyMode_ ? std::string_view("true") : std::string_view("false")});
  setTunnelNetworkSettings(
      std::move(settings),
      [weakProvider = weakSelf(), completion = std::move(completion)](const OptionalError& error) {
        if (const auto provider = weakProvider.lock()) {
          if (error) {
            provider->log_->error("OstravelProxy: Failed to set rules: %{public}s",
                                  {error->localizedDescription});
          } else {
            provider->log_->info("OstravelProxy: Rules set successfully");
          }
        }
        completion(error);
      });
}

void PacketTunnelProvider::stopProxy(platform::ProviderStopReason reason,
                                     std::function<void()> completion) {
  log_->info("OstravelProxy: Stopping Proxy");
  stopProxyHealthMonitoring();
  emit(monitoring_events::kProviderStopped,
       Context{{"reason", std::to_string(static_cast<std::int64_t>(reason))}});
  activeTunnelsQueue_->syncBarrier([this] { activeTunnels_.clear(); });
  completion();
}

std::optional<std::string> PacketTunnelProvider::resolveMonitoringSocketPath() const {
  const auto protocol = protocolConfiguration();
  if (!protocol || !protocol->providerConfiguration) {
    return std::nullopt;
  }
  const auto& configuration = *protocol->providerConfiguration;
  const auto found = configuration.find(kMonitoringSocketPathKey);
  if (found == configuration.end()) {
    return std::nullopt;
  }
  const auto* const path = std::get_if<std::string>(&found->second);
  return path != nullptr ? std::optional(*path) : std::nullopt;
}

platform::TransparentProxyNetworkSettings PacketTunnelProvider::makeNetworkSettings() const {
  platform::TransparentProxyNetworkSettings settings(proxyHost_);
  for (const std::string& port : built_in::interceptedPorts()) {
    auto& included = settings.includedNetworkRules;
    included.push_back(rule("0.0.0.0", port, 0, NetworkRuleProtocol::tcp));
    included.push_back(rule("::", port, 0, NetworkRuleProtocol::tcp));
    included.push_back(rule("127.0.0.1", port, 32, NetworkRuleProtocol::tcp));
    included.push_back(rule("::1", port, 128, NetworkRuleProtocol::tcp));
    // The ports on which QUIC runs.
    if (port == "443" || port == "80") {
      included.push_back(rule("0.0.0.0", port, 0, NetworkRuleProtocol::udp));
      included.push_back(rule("::", port, 0, NetworkRuleProtocol::udp));
    }
  }
  // Our own connections to the local proxy stay outside.
  const std::string proxyPort = std::to_string(proxyPort_);
  settings.excludedNetworkRules = {rule("127.0.0.1", proxyPort, 32, NetworkRuleProtocol::tcp),
                                   rule("::1", proxyPort, 128, NetworkRuleProtocol::tcp)};
  return settings;
}

// Health

void PacketTunnelProvider::startProxyHealthMonitoring() {
  if (proxyHealthTimer_) {
    proxyHealthTimer_->cancel();
  }
  proxyHealthTimer_ = platform_.makeTimer(proxyHealthQueue_);
  proxyHealthTimer_->schedule(0s, kProbeInterval, kProbeLeeway);
  proxyHealthTimer_->setEventHandler([weakProvider = weakSelf()] {
    if (const auto provider = weakProvider.lock()) {
      provider->probeProxyHealth();
    }
  });
  proxyHealthTimer_->resume();
}

void PacketTunnelProvider::stopProxyHealthMonitoring() {
  if (proxyHealthTimer_) {
    // A tick that is already due must not probe again.
    proxyHealthTimer_->setEventHandler([] {});
    proxyHealthTimer_->cancel();
  }
  proxyHealthTimer_ = nullptr;
}

void PacketTunnelProvider::probeProxyHealth() {
  const auto result = proxyReachabilityProbe().check();
  proxyHealthMonitor().recordProbeResult(result);
}

ProxyHealthMonitor& PacketTunnelProvider::proxyHealthMonitor() {
  if (!proxyHealthMonitor_) {
    proxyHealthMonitor_.emplace(proxySafetyGate_,
                                [weakProvider = weakSelf()](ProxyHealthEvent event) {
                                  if (const auto provider = weakProvider.lock()) {
                                    provider->emitProxyHealthEvent(event);
                                  }
                                });
  }
  return *proxyHealthMonitor_;
}

ProxyTCPReachabilityProbe& PacketTunnelProvider::proxyReachabilityProbe() {
  if (!proxyReachabilityProbe_) {
    proxyReachabilityProbe_.emplace(platform_.sockets(), proxyHost_, proxyPort_, kProbeTimeout);
  }
  return *proxyReachabilityProbe_;
}

void PacketTunnelProvider::emitProxyHealthEvent(ProxyHealthEvent event) {
  const auto& kind = event == ProxyHealthEvent::proxyUnavailable
                         ? monitoring_events::kProxyUnreachable
                         : monitoring_events::kProxyRecovered;
  emit(kind, Context{{"proxy", proxyHost_ + ":" + std::to_string(proxyPort_)}});
}

// Decision

PacketTunnelProvider::FlowAction PacketTunnelProvider::determineNormalFlowAction(
    std::string_view appId, std::string_view host, bool isUDP) const {
  const platform::TextServices& text = platform_.text();
  if (bypassAppIds_.contains(text.lowercased(appId))) {
    return FlowAction::bypass;
  }
  const std::string normalised = normalisedHost(host, text);
  if (hardBypassDomains_.matches(normalised)) {
    return FlowAction::bypass;
  }
  if (!isUDP) {
    return FlowAction::proxyTCP;
  }
  return udpQuicPolicyDomains_.matches(normalised) ? FlowAction::bypass : FlowAction::dropUDP;
}

PacketTunnelProvider::FlowAction PacketTunnelProvider::decideFlowAction(std::string_view appId,
                                                                        std::string_view host,
                                                                        bool isUDP) {
  const double now = platform_.clock().secondsSince1970();
  std::string key;
  key.reserve(appId.size() + host.size() + 5);
  key.append(appId).append(":").append(host).append(isUDP ? ":udp" : ":tcp");

  auto action = cachedFlowAction(key, now);
  if (!action) {
    action = determineNormalFlowAction(appId, host, isUDP);
    storeFlowAction(std::move(key), *action, now);
  }
  return applyProxySafetyGate(*action, isUDP);
}

std::optional<PacketTunnelProvider::FlowAction> PacketTunnelProvider::cachedFlowAction(
    const std::string& key, double now) {
  std::optional<FlowAction> action;
  bypassCacheQueue_->sync([this, &key, now, &action] {
    const auto* const entry = bypassCache_.find(key);
    if (entry != nullptr && entry->expiry > now) {
      action = entry->decision;
    }
  });
  return action;
}

void PacketTunnelProvider::storeFlowAction(std::string key, FlowAction action, double now) {
  bypassCacheQueue_->asyncBarrier([weakProvider = weakSelf(), key = std::move(key), action, now] {
    if (const auto provider = weakProvider.lock()) {
      provider->bypassCache_.store(key, action, now + kBypassCacheLifetimeSeconds, now);
    }
  });
}

PacketTunnelProvider::FlowAction PacketTunnelProvider::applyProxySafetyGate(FlowAction action,
                                                                            bool /*isUDP*/) const {
  return proxySafetyGate_->shouldBypassNewFlows() ? FlowAction::bypass : action;
}

// Dispatch

bool PacketTunnelProvider::handleNewFlow(std::shared_ptr<AppProxyFlow> flow) {
  const std::string appId = flow->sourceAppSigningIdentifier();
  const auto tcpFlow = std::dynamic_pointer_cast<AppProxyTCPFlow>(flow);
  const auto udpFlow = std::dynamic_pointer_cast<AppProxyUDPFlow>(flow);
  const bool isUDP = udpFlow != nullptr;

  std::optional<HostEndpoint> known;
  if (tcpFlow) {
    known = tcpFlow->remoteEndpoint();
  } else if (udpFlow) {
    known = udpFlow->localEndpoint();
  }
  const HostEndpoint endpoint = std::move(known).value_or(HostEndpoint{"unknown", "0"});

  switch (decideFlowAction(platform_.text().trimmed(appId), endpoint.hostname, isUDP)) {
    case FlowAction::bypass:
      return false;
    case FlowAction::dropUDP:
      if (udpFlow) {
        udpFlow->closeRead(std::nullopt);
        udpFlow->closeWrite(std::nullopt);
      }
      return true;
    case FlowAction::proxyTCP:
      if (!tcpFlow || isLocalProxy(endpoint)) {
        return false;
      }
      openFlow(tcpFlow, appId);
      return true;
  }
  return false;
}

// A connection to the local proxy itself must not go through it.
bool PacketTunnelProvider::isLocalProxy(const HostEndpoint& endpoint) const {
  const bool isLocalHost = endpoint.hostname == proxyHost_ || endpoint.hostname == "localhost" ||
                           endpoint.hostname == "127.0.0.1";
  return isLocalHost && endpoint.port == std::to_string(proxyPort_);
}

void PacketTunnelProvider::openFlow(const std::shared_ptr<AppProxyTCPFlow>& flow,
                                    const std::string& appId) {
  flow->open(std::nullopt, [weakProvider = weakSelf(), flow, appId,
                            &platform = platform_](const OptionalError& error) {
    const auto provider = weakProvider.lock();
    if (error) {
      platform::Log& log = provider ? *provider->log_ : platform.defaultLog();
      log.error("OstravelProxy: Failed to open flow: %{public}s", {error->localizedDescription});
      flow->closeRead(error);
      flow->closeWrite(error);
      return;
    }
    if (provider) {
      provider->startTunnel(flow, appId);
    }
  });
}

void PacketTunnelProvider::startTunnel(const std::shared_ptr<AppProxyTCPFlow>& flow,
                                       const std::string& appId) {
  const std::string flowId = platform_.uuidSource().randomUUID();
  if (!tunnelAdmissionController_.tryAcquireHandshakeSlot(flowId)) {
    rejectFlow(*flow, flowId, appId);
    return;
  }
  const auto tunnel = makeTunnel(flow, flowId, appId);
  // Submitted before the start, so that a tunnel that ends early is removed after it was added.
  activeTunnelsQueue_->asyncBarrier([provider = self(), tunnel] {
    provider->activeTunnels_.insert_or_assign(tunnel->flowId(), tunnel);
  });
  tunnel->start();
}

std::shared_ptr<OVTunnelConnection> PacketTunnelProvider::makeTunnel(
    const std::shared_ptr<AppProxyTCPFlow>& flow, const std::string& flowId,
    const std::string& appId) {
  const auto connection =
      createTCPConnection({proxyHost_, std::to_string(proxyPort_)}, platform::TLSPolicy::disabled);
  const auto onHandshakeEstablished = [weakProvider = weakSelf()](const std::string& id) {
    if (const auto provider = weakProvider.lock()) {
      provider->tunnelAdmissionController_.markEstablished(id);
    }
  };
  const auto onProxyUnavailable = [weakProvider = weakSelf()] {
    if (const auto provider = weakProvider.lock()) {
      provider->proxySafetyGate_->setProxyUnavailable(true);
    }
  };
  const auto onClose = [weakProvider = weakSelf()](const std::string& id) {
    if (const auto provider = weakProvider.lock()) {
      provider->tunnelDidClose(id);
    }
  };
  return std::make_shared<OVTunnelConnection>(platform_, flow, connection, flowId, appId,
                                              connectHandshakeTimeoutSeconds_, monitoringClient_,
                                              onHandshakeEstablished, onProxyUnavailable, onClose);
}

void PacketTunnelProvider::rejectFlow(AppProxyTCPFlow& flow, const std::string& flowId,
                                      const std::string& appId) {
  const Error error = platform::providerError(platform::kHandshakeBacklogExceededCode,
                                              "Proxy handshake backlog exceeded");
  log_->error("OstravelProxy: Rejecting flow due to handshake backlog");
  const auto pending = static_cast<double>(tunnelAdmissionController_.pendingCount());
  emit(monitoring_events::kHandshakeBacklogExceeded, Context{{"app_id", appId}},
       Metrics{{"pending_handshakes", pending}}, flowId);
  flow.closeRead(error);
  flow.closeWrite(error);
}

void PacketTunnelProvider::tunnelDidClose(const std::string& flowId) {
  activeTunnelsQueue_->asyncBarrier([weakProvider = weakSelf(), flowId] {
    if (const auto provider = weakProvider.lock()) {
      provider->activeTunnels_.erase(flowId);
    }
  });
  tunnelAdmissionController_.release(flowId);
}

void PacketTunnelProvider::emit(const MonitoringEventKind& kind, std::optional<Context> context,
                                std::optional<Metrics> metrics, std::optional<std::string> flowId) {
  monitoringClient_->emit(makeMonitoringEvent(platform_, kind, std::move(flowId),
                                              std::move(context), std::move(metrics)));
}

}  // namespace ostravel
