#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "Extension/main/ProxyingState.h"

namespace ostravel::linuxplatform {

// Notifies the service manager (sd_notify(3)) that the extension is ready and alive, and of its
// status in one line: the state of the gate and the program of the proxy. Usable from any thread.
class ServiceStatus {
 public:
  using Clock = std::chrono::steady_clock;
  // Receives the assignments of one notification, one per line.
  using Notify = std::function<void(const std::string&)>;

  // How long the first probe may delay readiness.
  static constexpr std::chrono::seconds kReadyTimeout{2};

  explicit ServiceStatus(Notify notify) : notify_(std::move(notify)) {}

  // The program of the proxy that serves all users, with its process and user; empty for none.
  void setProxy(const std::string& proxy);

  // Call it periodically while flows are offered. isGateOpen: absent before the first probe has
  // been answered. reason: of the current ProxyingState; says why connections go direct although
  // the gate is open, and tells a proxy that hangs from one that is absent. Ready from the first
  // call with a gate, or kReadyTimeout after the first call.
  void beat(std::optional<bool> isGateOpen, ProxyingState::Reason reason, Clock::time_point now);

 private:
  std::string nextAssignments(std::optional<bool> isGateOpen, ProxyingState::Reason reason,
                              Clock::time_point now);
  std::string text(std::optional<bool> isGateOpen, ProxyingState::Reason reason) const;

  const Notify notify_;
  std::mutex lock_;
  std::string proxy_;
  std::optional<Clock::time_point> firstBeat_;
  bool isReady_ = false;
  std::string lastText_;
};

}  // namespace ostravel::linuxplatform
