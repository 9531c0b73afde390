#include "Extension/main/FlowExplanation.h"

#include <algorithm>
#include <utility>

#include "Platform/Linux/Statistics/FlowRecord.h"

namespace ostravel {

using linuxplatform::FlowRecord;
using linuxplatform::ProxyingState;
using platform::FlowRule;

namespace {

// On no list (RFC 2606).
constexpr std::string_view kOrdinaryHost = "host.invalid";

bool isSelected(std::uint16_t port, bool isUDP) {
  using platform::NetworkRuleProtocol;
  const auto wanted = isUDP ? NetworkRuleProtocol::udp : NetworkRuleProtocol::tcp;
  return std::ranges::any_of(PacketTunnelProvider::networkSettings().includedNetworkRules,
                             [port, wanted](const platform::NetworkRule& rule) {
                               return rule.protocol == wanted &&
                                      rule.destinationNetwork.port == std::to_string(port);
                             });
}

std::string quoted(const std::string& text) {
  return "\"" + text + "\"";
}

// Collects the rules until one decides.
class Explainer {
 public:
  void passes(std::string_view rule, std::string message) {
    explanation_.rules.push_back({rule, false, std::move(message)});
  }
  FlowExplanation decides(std::string_view rule, FlowRecord::Action action, std::string_view reason,
                          const std::string& message) {
    explanation_.rules.push_back({rule, true, message});
    explanation_.action = nameOf(action);
    explanation_.reason = reason;
    explanation_.message = message;
    return std::move(explanation_);
  }
  FlowExplanation decides(std::string_view rule, FlowRule reason, const std::string& message) {
    return decides(rule, linuxplatform::actionOf(reason), linuxplatform::nameOf(reason), message);
  }

 private:
  FlowExplanation explanation_;
};

}  // namespace

FlowExplanation FlowExplanation::of(const Question& question, const PacketTunnelProvider& provider,
                                    const ProxyingState::State& state) {
  Explainer explainer;
  const std::string protocol = question.isUDP ? "UDP" : "TCP";
  const std::string port = std::to_string(question.port);
  const std::string host = question.host.value_or(std::string(kOrdinaryHost));
  const std::string application = question.application.value_or("");
  const FlowRule rule = provider.explain(application, {host, port}, question.isUDP);

  if (rule == FlowRule::localProxy) {
    return explainer.decides("proxy", rule, "It leads to the local proxy itself and goes direct.");
  }
  if (!isSelected(question.port, question.isUDP)) {
    return explainer.decides(
        "port", FlowRecord::Action::direct, "port_not_selected",
        protocol + " to port " + port + " is not intercepted and goes direct.");
  }
  explainer.passes("port", protocol + " to port " + port + " is intercepted.");
  const std::string who =
      question.application ? "The application " + quoted(application) : "An ordinary application";
  if (rule == FlowRule::exemptApplication) {
    return explainer.decides("application", rule, who + " is exempt and goes direct.");
  }
  explainer.passes("application", who + " is not exempt.");
  const std::string where = question.host ? "The host " + quoted(host) : "An ordinary host";
  if (rule == FlowRule::exemptHost || rule == FlowRule::realtimeMedia) {
    return explainer.decides(
        "host", rule,
        where + (rule == FlowRule::exemptHost ? " is exempt and connections to it go direct."
                                              : " serves real-time media; UDP to it goes direct."));
  }
  explainer.passes("host", where + " is not exempt.");
  if (rule == FlowRule::gateClosed) {
    return explainer.decides(
        "gate", rule,
        state.reason == ProxyingState::Reason::proxyNotAnswering
            ? "The gate is closed for a moment, because the proxy did not answer in time: it goes "
              "direct."
            : "The gate is closed, because nothing answers on the proxy's port: it goes direct.");
  }
  explainer.passes("gate", "The gate is open.");
  if (state.reason != ProxyingState::Reason::proxied) {
    return explainer.decides("state", FlowRecord::Action::direct, nameOf(state.reason),
                             state.message());
  }
  if (rule == FlowRule::refusedUDP) {
    return explainer.decides("protocol", rule,
                             "UDP to this port is refused, so that the application uses TCP.");
  }
  return explainer.decides("protocol", rule,
                           "It is sent through the local proxy, " + state.proxy + ".");
}

}  // namespace ostravel
