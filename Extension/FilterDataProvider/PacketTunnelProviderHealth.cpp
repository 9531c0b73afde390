// The provider's health loop: one probe of the local proxy per second, and its consequences.

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"

#include <chrono>
#include <string>

namespace ostravel {

namespace {

using namespace std::chrono_literals;

constexpr auto kProbeInterval = 1s;
constexpr auto kProbeLeeway = 150ms;
// A tick ends before the next one is due.
static_assert(platform::limits::kProbeTimeout + kProbeLeeway < kProbeInterval);

}  // namespace

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
  hasProbed_ = true;
  const double now = platform_.clock().secondsSince1970();
  {
    const std::lock_guard guard(healthLock_);
    health_.lastProbe = {now, result == ProxyHealthProbeResult::reachable};
  }
  noteGate();
}

// Two concurrent writers can only make the time of the change slightly late.
void PacketTunnelProvider::noteGate() {
  const auto isOpen = isGateOpen();
  const double now = platform_.clock().secondsSince1970();
  const std::lock_guard guard(healthLock_);
  if (health_.isGateOpen != isOpen) {
    health_.isGateOpen = isOpen;
    health_.gateSince = now;
  }
}

PacketTunnelProvider::Health PacketTunnelProvider::health() const {
  const std::lock_guard guard(healthLock_);
  return health_;
}

std::optional<bool> PacketTunnelProvider::isGateOpen() const {
  return hasProbed_ ? std::optional(!proxySafetyGate_->shouldBypassNewFlows()) : std::nullopt;
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
    proxyReachabilityProbe_.emplace(platform_.sockets(), proxyHost_, proxyPort_,
                                    platform::limits::kProbeTimeout);
  }
  return *proxyReachabilityProbe_;
}

void PacketTunnelProvider::emitProxyHealthEvent(ProxyHealthEvent event) {
  const auto& kind = event == ProxyHealthEvent::proxyUnavailable
                         ? monitoring_events::kProxyUnreachable
                         : monitoring_events::kProxyRecovered;
  emit(kind, Context{{"proxy", proxyHost_ + ":" + std::to_string(proxyPort_)}});
}

}  // namespace ostravel
