#include "Extension/main/ServiceStatus.h"

#include "Extension/main/ProxyAddress.h"

namespace ostravel::linuxplatform {

void ServiceStatus::setProxy(const std::string& proxy) {
  const std::lock_guard guard(lock_);
  proxy_ = proxy;
}

void ServiceStatus::beat(std::optional<bool> isGateOpen, ProxyingState::Reason reason,
                         Clock::time_point now) {
  // Outside the lock: a service manager that has stopped reading must not stop an event loop in
  // setProxy.
  notify_(nextAssignments(isGateOpen, reason, now));
}

std::string ServiceStatus::nextAssignments(std::optional<bool> isGateOpen,
                                           ProxyingState::Reason reason, Clock::time_point now) {
  const std::lock_guard guard(lock_);
  if (!firstBeat_) {
    firstBeat_ = now;
  }
  std::string assignments = "WATCHDOG=1";
  if (!isReady_ && (isGateOpen || now - *firstBeat_ >= kReadyTimeout)) {
    isReady_ = true;
    assignments += "\nREADY=1";
  }
  if (std::string current = text(isGateOpen, reason); current != lastText_) {
    assignments += "\nSTATUS=" + current;
    lastText_ = std::move(current);
  }
  return assignments;
}

std::string ServiceStatus::text(std::optional<bool> isGateOpen,
                                ProxyingState::Reason reason) const {
  const std::string address = proxyAddress();
  if (!isGateOpen) {
    return "Gate closed: " + address + " has not been probed yet; connections go direct";
  }
  if (reason == ProxyingState::Reason::proxyNotAnswering && !proxy_.empty()) {
    return std::string(*isGateOpen ? "Gate open: " : "Gate closed: ") + proxy_ +
           " does not answer in time; connections go direct";
  }
  if (!*isGateOpen) {
    return "Gate closed: nothing answers on " + address + "; connections go direct";
  }
  if (reason == ProxyingState::Reason::descriptors) {
    return "Gate open: too few descriptors are left; connections go direct";
  }
  if (reason == ProxyingState::Reason::redirectBlocked) {
    return "Gate open: rules of another program block redirected connections; connections go "
           "direct";
  }
  if (proxy_.empty()) {
    return "Gate open: no proxy that serves all users on " + address;
  }
  return "Gate open: the local proxy is " + proxy_;
}

}  // namespace ostravel::linuxplatform
