// The provider's decision about a flow, and its cache of decisions.

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"

#include <utility>

namespace ostravel {

using platform::FlowRule;

namespace {

constexpr double kBypassCacheLifetimeSeconds = 30.0;

}  // namespace

PacketTunnelProvider::FlowAction PacketTunnelProvider::determineNormalFlowAction(
    std::string_view appId, std::string_view host, bool isUDP) const {
  switch (normalRule(appId, host, isUDP)) {
    case FlowRule::proxied:
      return FlowAction::proxyTCP;
    case FlowRule::refusedUDP:
      return FlowAction::dropUDP;
    default:
      return FlowAction::bypass;
  }
}

FlowRule PacketTunnelProvider::normalRule(std::string_view appId, std::string_view host,
                                          bool isUDP) const {
  const platform::TextServices& text = platform_.text();
  if (bypassAppIds_.contains(text.lowercased(appId))) {
    return FlowRule::exemptApplication;
  }
  const std::string normalised = normalisedHost(host, text);
  if (hardBypassDomains_.matches(normalised)) {
    return FlowRule::exemptHost;
  }
  if (!isUDP) {
    return FlowRule::proxied;
  }
  return udpQuicPolicyDomains_.matches(normalised) ? FlowRule::realtimeMedia : FlowRule::refusedUDP;
}

FlowRule PacketTunnelProvider::bypassRule(std::string_view appId, std::string_view host,
                                          bool isUDP) const {
  const FlowRule rule = normalRule(appId, host, isUDP);
  // The flow goes direct although the lists say otherwise: only the gate can be the reason.
  const bool isOverridden = rule == FlowRule::proxied || rule == FlowRule::refusedUDP;
  return isOverridden ? FlowRule::gateClosed : rule;
}

FlowRule PacketTunnelProvider::explain(std::string_view appId, const platform::HostEndpoint& remote,
                                       bool isUDP) const {
  const std::string_view trimmed = platform_.text().trimmed(appId);
  if (proxySafetyGate_->shouldBypassNewFlows()) {
    return bypassRule(trimmed, remote.hostname, isUDP);
  }
  const FlowRule rule = normalRule(trimmed, remote.hostname, isUDP);
  return rule == FlowRule::proxied && isLocalProxy(remote) ? FlowRule::localProxy : rule;
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
