// The provider's handling of a new flow: it leaves it to the system, closes it, or opens it and
// creates a tunnel for it.

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"

#include <string>
#include <string_view>
#include <utility>

#include "Platform/Interface/AppProxyTCPFlow.h"
#include "Platform/Interface/AppProxyUDPFlow.h"
#include "Platform/Interface/ProviderError.h"

namespace ostravel {

using platform::AppProxyFlow;
using platform::AppProxyTCPFlow;
using platform::AppProxyUDPFlow;
using platform::Error;
using platform::FlowRule;
using platform::HostEndpoint;
using platform::OptionalError;

bool PacketTunnelProvider::handleNewFlow(std::shared_ptr<AppProxyFlow> flow) {
  const std::string appId = flow->sourceAppSigningIdentifier();
  const auto tcpFlow = std::dynamic_pointer_cast<AppProxyTCPFlow>(flow);
  // A cast that fails takes long.
  const auto udpFlow = tcpFlow ? nullptr : std::dynamic_pointer_cast<AppProxyUDPFlow>(flow);
  const bool isUDP = udpFlow != nullptr;

  std::optional<HostEndpoint> known;
  if (tcpFlow) {
    known = tcpFlow->remoteEndpoint();
  } else if (udpFlow) {
    known = udpFlow->localEndpoint();
  }
  const HostEndpoint endpoint = std::move(known).value_or(HostEndpoint{"unknown", "0"});

  const std::string_view trimmedAppId = platform_.text().trimmed(appId);
  const FlowDecision decision = decideFlow(trimmedAppId, endpoint.hostname, isUDP);
  switch (decision.action) {
    case FlowAction::bypass:
      noteDecision(*flow, decision.rule);
      return false;
    case FlowAction::dropUDP:
      noteDecision(*flow, decision.rule);
      if (udpFlow) {
        udpFlow->closeRead(std::nullopt);
        udpFlow->closeWrite(std::nullopt);
      }
      return true;
    case FlowAction::proxyTCP:
      if (!tcpFlow || isLocalProxy(endpoint)) {
        noteDecision(*flow, FlowRule::localProxy);
        return false;
      }
      noteDecision(*flow, decision.rule);
      openFlow(tcpFlow, appId);
      return true;
  }
  return false;
}

void PacketTunnelProvider::noteDecision(AppProxyFlow& flow, FlowRule rule) {
  if (flow.observer() != nullptr) {
    flow.observer()->decided(rule);
  }
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
      log.error("OstravelProxy: Failed to open flow: %{public}s", {error->localizedDescription},
                {.application = appId});
      if (flow->observer() != nullptr) {
        flow->observer()->ended(platform::FlowEnd::abandoned, error->localizedDescription);
      }
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
  if (flow->observer() != nullptr) {
    flow->observer()->identified(flowId);
  }
  FlowIdentifier identifier(flowId);
  if (!tunnelAdmissionController_.tryAcquireHandshakeSlot(identifier)) {
    rejectFlow(*flow, flowId, appId);
    return;
  }
  const auto connection =
      createTCPConnection({proxyHost_, std::to_string(proxyPort_)}, platform::TLSPolicy::disabled);
  const auto tunnel = std::make_shared<OVTunnelConnection>(
      tunnelsCommon(), flow, connection, std::move(identifier), applications_.of(appId));
  // Submitted before the start, so that a tunnel that ends early is removed after it was added.
  activeTunnelsQueue_->asyncBarrier([provider = self(), tunnel] {
    provider->forgetTunnel(tunnel->flowId());
    provider->activeTunnels_.insert(tunnel);
  });
  tunnel->start();
}

void PacketTunnelProvider::forgetTunnel(const FlowIdentifier& flowId) {
  if (const auto found = activeTunnels_.find(flowId); found != activeTunnels_.end()) {
    activeTunnels_.erase(found);
  }
}

Reference<const OVTunnelConnection::Common> PacketTunnelProvider::tunnelsCommon() {
  const std::lock_guard guard(tunnelsCommonLock_);
  if (!tunnelsCommon_) {
    tunnelsCommon_ = makeTunnelsCommon();
  }
  return tunnelsCommon_;
}

Reference<const OVTunnelConnection::Common> PacketTunnelProvider::makeTunnelsCommon() {
  const auto onHandshakeEstablished = [weakProvider = weakSelf()](const FlowIdentifier& id) {
    if (const auto provider = weakProvider.lock()) {
      provider->tunnelAdmissionController_.markEstablished(id);
    }
  };
  const auto onProxyUnavailable = [weakProvider = weakSelf()] {
    if (const auto provider = weakProvider.lock()) {
      provider->proxySafetyGate_->setProxyUnavailable(true);
      provider->noteGate();
    }
  };
  const auto onClose = [weakProvider = weakSelf()](const FlowIdentifier& id) {
    if (const auto provider = weakProvider.lock()) {
      provider->tunnelDidClose(id);
    }
  };
  return makeReference<const OVTunnelConnection::Common>(platform_, connectHandshakeTimeoutSeconds_,
                                                         monitoringClient_, onHandshakeEstablished,
                                                         onProxyUnavailable, onClose);
}

void PacketTunnelProvider::rejectFlow(AppProxyTCPFlow& flow, const std::string& flowId,
                                      const std::string& appId) {
  const Error error = platform::providerError(platform::kHandshakeBacklogExceededCode,
                                              "Proxy handshake backlog exceeded");
  log_->error("OstravelProxy: Rejecting flow due to handshake backlog", {},
              {.flowID = flowId,
               .application = appId,
               .code = monitoring_events::kHandshakeBacklogExceeded.code});
  if (flow.observer() != nullptr) {
    flow.observer()->ended(platform::FlowEnd::backlog, error.localizedDescription);
  }
  const auto pending = static_cast<double>(tunnelAdmissionController_.pendingCount());
  emit(monitoring_events::kHandshakeBacklogExceeded, Context{{"app_id", appId}},
       Metrics{{"pending_handshakes", pending}}, flowId);
  flow.closeRead(error);
  flow.closeWrite(error);
}

void PacketTunnelProvider::tunnelDidClose(const FlowIdentifier& flowId) {
  activeTunnelsQueue_->asyncBarrier([weakProvider = weakSelf(), flowId] {
    if (const auto provider = weakProvider.lock()) {
      provider->forgetTunnel(flowId);
    }
  });
  tunnelAdmissionController_.release(flowId);
}

}  // namespace ostravel
