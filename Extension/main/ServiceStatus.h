#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

namespace ostravel::linuxplatform {

// What the service manager and its users see of the extension (sd_notify(3)): that it is ready,
// that it is alive, and in one line the state of the gate and which program the proxy is. Usable
// from any thread.
class ServiceStatus {
 public:
  using Clock = std::chrono::steady_clock;
  // Takes the assignments of one notification, a line each.
  using Notify = std::function<void(const std::string&)>;

  // How long the first probe may delay readiness.
  static constexpr std::chrono::seconds kReadyTimeout{2};

  explicit ServiceStatus(Notify notify) : notify_(std::move(notify)) {}

  // The program that serves every user as the proxy, with its process and user; empty for none.
  void setProxy(const std::string& proxy);

  // Call it periodically while flows are offered. isGateOpen: absent before the first probe has
  // been answered. Ready from the first call with a gate, or kReadyTimeout after the first call.
  void beat(std::optional<bool> isGateOpen, Clock::time_point now);

 private:
  std::string nextAssignments(std::optional<bool> isGateOpen, Clock::time_point now);
  std::string text(std::optional<bool> isGateOpen) const;

  const Notify notify_;
  std::mutex lock_;
  std::string proxy_;
  std::optional<Clock::time_point> firstBeat_;
  bool isReady_ = false;
  std::string lastText_;
};

}  // namespace ostravel::linuxplatform
