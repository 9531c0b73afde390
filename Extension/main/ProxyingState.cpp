#include "Extension/main/ProxyingState.h"

#include <algorithm>

#include "Extension/main/ProxyAddress.h"

namespace ostravel::linuxplatform {

void ProxyingState::setProxy(const std::string& proxy, const std::string& reason, double now) {
  const std::lock_guard guard(lock_);
  state_.proxyReason = reason;
  if (state_.proxy != proxy) {
    state_.proxy = proxy;
    proxySince_ = now;
  }
}

void ProxyingState::update(const Facts& facts, double now) {
  const std::lock_guard guard(lock_);
  const Reason reason = reasonFor(facts);
  if (state_.reason != reason || state_.since == 0) {
    state_.reason = reason;
    state_.since = now;
  }
}

ProxyingState::State ProxyingState::state() const {
  const std::lock_guard guard(lock_);
  return state_;
}

ProxyingState::Reason ProxyingState::reasonFor(const Facts& facts) const {
  if (facts.isStopping) {
    return Reason::stopping;
  }
  if (!facts.isIntercepting || !facts.isGateOpen) {
    return Reason::starting;
  }
  // Time-outs of an earlier proxy do not count.
  const bool isHung =
      !state_.proxy.empty() && facts.lastTimeout > std::max(facts.lastSuccess, proxySince_);
  if (!*facts.isGateOpen) {
    // A handshake that fails closes the gate as well, until the next probe.
    return isHung && facts.isProxyReachable ? Reason::proxyNotAnswering : Reason::proxyUnreachable;
  }
  if (facts.isNearDescriptorLimit) {
    return Reason::descriptors;
  }
  if (!facts.isRedirectUsable) {
    return Reason::redirectBlocked;
  }
  if (state_.proxy.empty()) {
    return Reason::proxyNotTrusted;
  }
  return isHung ? Reason::proxyNotAnswering : Reason::proxied;
}

std::string ProxyingState::State::message() const {
  const std::string address = proxyAddress();
  switch (reason) {
    case Reason::proxied:
      return "New connections are proxied by " + proxy + ".";
    case Reason::starting:
      return "New connections go direct: the extension is starting.";
    case Reason::proxyUnreachable:
      return "New connections go direct: nothing answers on " + address + ".";
    case Reason::proxyNotAnswering:
      return "New connections go direct, but for one at a time as a test: " + proxy +
             " accepts connections and does not answer in time.";
    case Reason::proxyNotTrusted:
      return "New connections go direct: " +
             (proxyReason.empty() ? "no proxy is known on " + address : proxyReason) + ".";
    case Reason::redirectBlocked:
      return "New connections go direct: rules of another program block redirected connections.";
    case Reason::descriptors:
      return "New connections go direct: too few descriptors are left.";
    case Reason::stopping:
      return "New connections go direct: the extension is ending.";
  }
  return "";
}

std::string ProxyingState::State::proxyText() const {
  if (proxyReason.empty()) {
    return "it has not been looked for yet";
  }
  // It was tested once, and its state has changed since.
  if (!proxy.empty() && reason == Reason::proxyNotAnswering) {
    return "it does not answer in time; " + proxyReason;
  }
  if (!proxy.empty() && reason == Reason::proxyUnreachable) {
    return "it cannot be reached; " + proxyReason;
  }
  return proxyReason;
}

std::string_view nameOf(ProxyingState::Reason reason) {
  using Reason = ProxyingState::Reason;
  switch (reason) {
    case Reason::proxied:
      return "proxied";
    case Reason::starting:
      return "starting";
    case Reason::proxyUnreachable:
      return "proxy_unreachable";
    case Reason::proxyNotAnswering:
      return "proxy_not_answering";
    case Reason::proxyNotTrusted:
      return "proxy_not_trusted";
    case Reason::redirectBlocked:
      return "redirect_blocked";
    case Reason::descriptors:
      return "descriptors";
    case Reason::stopping:
      return "stopping";
  }
  return "unknown";
}

}  // namespace ostravel::linuxplatform
