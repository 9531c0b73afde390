// The provider's decision about a flow, and its cache of decisions.

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

namespace ostravel {

using platform::FlowRule;

namespace {

constexpr double kBypassCacheLifetimeSeconds = 30.0;

// The key of a decision, on the stack unless it is unusually long: nearly all are only looked up.
class CacheKey {
 public:
  CacheKey(std::string_view appId, std::string_view host, bool isUDP) {
    const std::string_view protocol = isUDP ? ":udp" : ":tcp";
    const std::size_t size = appId.size() + 1 + host.size() + protocol.size();
    char* begin = room_.data();
    if (size > room_.size()) {
      long_.resize(size);
      begin = long_.data();
    }
    char* end = std::copy(appId.begin(), appId.end(), begin);
    *end++ = ':';
    end = std::copy(host.begin(), host.end(), end);
    std::copy(protocol.begin(), protocol.end(), end);
    text_ = {begin, size};
  }
  CacheKey(const CacheKey&) = delete;
  CacheKey& operator=(const CacheKey&) = delete;

  std::string_view text() const { return text_; }

 private:
  std::array<char, 256> room_;
  std::string long_;
  std::string_view text_;
};

}  // namespace

PacketTunnelProvider::FlowAction PacketTunnelProvider::determineNormalFlowAction(
    std::string_view appId, std::string_view host, bool isUDP) const {
  return actionOf(normalRule(appId, host, isUDP));
}

PacketTunnelProvider::FlowAction PacketTunnelProvider::actionOf(FlowRule rule) {
  switch (rule) {
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
  if (bypassAppIds_.contains(LowercasedText(appId, text).text())) {
    return FlowRule::exemptApplication;
  }
  const NormalisedHost normalised(host, text);
  if (hardBypassDomains_.matches(normalised.text())) {
    return FlowRule::exemptHost;
  }
  if (!isUDP) {
    return FlowRule::proxied;
  }
  return udpQuicPolicyDomains_.matches(normalised.text()) ? FlowRule::realtimeMedia
                                                          : FlowRule::refusedUDP;
}

FlowRule PacketTunnelProvider::explain(std::string_view appId, const platform::HostEndpoint& remote,
                                       bool isUDP) const {
  const std::string_view trimmed = platform_.text().trimmed(appId);
  const FlowRule rule = normalRule(trimmed, remote.hostname, isUDP);
  if (applyProxySafetyGate(actionOf(rule), isUDP) != actionOf(rule)) {
    return FlowRule::gateClosed;
  }
  return rule == FlowRule::proxied && isLocalProxy(remote) ? FlowRule::localProxy : rule;
}

PacketTunnelProvider::FlowDecision PacketTunnelProvider::decideFlow(std::string_view appId,
                                                                    std::string_view host,
                                                                    bool isUDP) {
  // Decisions expire after half a minute: milliseconds do not matter.
  const double now = platform_.clock().coarseSecondsSince1970();
  const CacheKey key(appId, host, isUDP);

  auto decision = cachedDecision(key.text(), now);
  if (!decision) {
    const FlowRule rule = normalRule(appId, host, isUDP);
    decision = {actionOf(rule), rule};
    storeDecision(std::string(key.text()), *decision, now);
  }
  const FlowAction gated = applyProxySafetyGate(decision->action, isUDP);
  return gated == decision->action ? *decision : FlowDecision{gated, FlowRule::gateClosed};
}

std::optional<PacketTunnelProvider::FlowDecision> PacketTunnelProvider::cachedDecision(
    std::string_view key, double now) {
  std::optional<FlowDecision> decision;
  bypassCacheQueue_->sync([this, key, now, &decision] {
    const auto* const entry = bypassCache_.find(key);
    if (entry != nullptr && entry->expiry > now) {
      decision = entry->decision;
    }
  });
  return decision;
}

void PacketTunnelProvider::storeDecision(std::string key, FlowDecision decision, double now) {
  bypassCacheQueue_->asyncBarrier(
      [weakProvider = weakSelf(), key = std::move(key), decision, now]() mutable {
        if (const auto provider = weakProvider.lock()) {
          provider->bypassCache_.store(std::move(key), decision, now + kBypassCacheLifetimeSeconds,
                                       now);
        }
      });
}

PacketTunnelProvider::FlowAction PacketTunnelProvider::applyProxySafetyGate(FlowAction action,
                                                                            bool /*isUDP*/) const {
  return proxySafetyGate_->shouldBypassNewFlows() ? FlowAction::bypass : action;
}

}  // namespace ostravel
