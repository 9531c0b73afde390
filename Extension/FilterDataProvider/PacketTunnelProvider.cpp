// The provider's construction, start and stop. Its health loop, its decision and its dispatch have
// sources of their own.

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"

#include <cstddef>
#include <utility>
#include <variant>

#include "Extension/FilterDataProvider/BuiltInLists.h"
#include "Extension/ProxyTunnelCore/ExtensionLog.h"

namespace ostravel {

using platform::DispatchQueueKind;
using platform::ErrorCompletion;
using platform::NetworkRule;
using platform::NetworkRuleProtocol;
using platform::OptionalError;

namespace {

constexpr std::string_view kMonitoringSocketPathKey = "monitoringSocketPath";

template <typename Set>
Set copyOf(const std::unordered_set<std::string>& texts) {
  return Set(texts.begin(), texts.end());
}

NetworkRule rule(std::string_view address, std::string_view port, std::uint8_t prefix,
                 NetworkRuleProtocol protocol) {
  return {{std::string(address), std::string(port)}, prefix, protocol};
}

}  // namespace

PacketTunnelProvider::PacketTunnelProvider(platform::Platform& platform,
                                           platform::ProviderContext& context)
    : TransparentProxyProvider(context),
      platform_(platform),
      log_(makeExtensionLog(platform)),
      bypassAppIds_(copyOf<TextSet>(built_in::bypassAppIds())),
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
  // Both queues only guard a table.
  activeTunnelsQueue_->itemsNeverBlock();
  bypassCacheQueue_->itemsNeverBlock();
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

  auto settings = networkSettings();
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

platform::TransparentProxyNetworkSettings PacketTunnelProvider::networkSettings() {
  platform::TransparentProxyNetworkSettings settings{std::string(platform::limits::kProxyHost)};
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
  // Our own connections to the local proxy are excluded.
  const std::string proxyPort = std::to_string(platform::limits::kProxyPort);
  settings.excludedNetworkRules = {rule("127.0.0.1", proxyPort, 32, NetworkRuleProtocol::tcp),
                                   rule("::1", proxyPort, 128, NetworkRuleProtocol::tcp)};
  return settings;
}

void PacketTunnelProvider::emit(const MonitoringEventKind& kind, std::optional<Context> context,
                                std::optional<Metrics> metrics, std::optional<std::string> flowId) {
  monitoringClient_->emit(makeMonitoringEvent(platform_, kind, std::move(flowId),
                                              std::move(context), std::move(metrics)));
}

}  // namespace ostravel
