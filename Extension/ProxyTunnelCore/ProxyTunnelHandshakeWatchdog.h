#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "Platform/Interface/DispatchQueue.h"
#include "Platform/Interface/DispatchTimer.h"
#include "Platform/Interface/Platform.h"

namespace ostravel {

// A one-shot timer with three states: idle, running, finished. Once started, it is either finished
// without effect or fires, never both. Owned by a tunnel; held by std::shared_ptr because its timer
// holds it weakly. Usable from any thread.
class ProxyTunnelHandshakeWatchdog
    : public std::enable_shared_from_this<ProxyTunnelHandshakeWatchdog> {
 public:
  using TimeoutHandler = std::function<void()>;

  // timeout in seconds. onTimeout runs on queue, with no lock held.
  ProxyTunnelHandshakeWatchdog(platform::Platform& platform, double timeout,
                               std::shared_ptr<platform::DispatchQueue> queue,
                               TimeoutHandler onTimeout);

  // Starts an idle watchdog; has no effect on one that is running or finished. With a timeout that
  // is not greater than zero it calls onTimeout synchronously and does not change the state.
  void start();

  // Called by the timer: calls onTimeout if the watchdog is still running.
  void handleTimeout();

  // Ends a running watchdog; one that was never started stays idle.
  void finishWithoutCallback();

 private:
  friend class PacketTunnelProviderTestPeer;

  enum class State { idle, running, finished };

  std::shared_ptr<platform::DispatchQueue> queueUnlessFinished() const;
  // If the watchdog is idle, makes it run with this timer.
  bool adopt(const std::shared_ptr<platform::DispatchTimer>& timer);

  // Called with the lock held; finish() only while running.
  void finish();
  TimeoutHandler takeTimeout();

  platform::Platform& platform_;
  const double timeout_;
  // Released once it is finished: the tunnel that owns it may live for a long time.
  std::shared_ptr<platform::DispatchQueue> queue_;
  TimeoutHandler onTimeout_;
  mutable std::mutex lock_;
  State state_ = State::idle;
  // Null unless it is running.
  std::shared_ptr<platform::DispatchTimer> timer_;
};

}  // namespace ostravel
