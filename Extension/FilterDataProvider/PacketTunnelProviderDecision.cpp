// The provider's decision about a flow, and its memory of decisions.

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"

#include <utility>

namespace ostravel {

namespace {

constexpr double kBypassCacheLifetimeSeconds = 30.0;

}  // namespace

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

}  // namespace ostravel
