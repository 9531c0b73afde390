#include "Extension/ProxyTunnelCore/ProxyTunnelHandshakeWatchdog.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace ostravel {

namespace {

void disarm(platform::DispatchTimer& timer) {
  // The empty handler releases the old one's captures, and makes an expiration that is already due
  // harmless.
  timer.setEventHandler([] {});
  timer.cancel();
}

std::chrono::nanoseconds delayFor(double seconds) {
  // Longer time-outs are limited to ten years, so that the count of nanoseconds cannot overflow.
  constexpr double kLongest = 10.0 * 365.0 * 24.0 * 3600.0;
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::duration<double>(std::min(seconds, kLongest)));
}

}  // namespace

ProxyTunnelHandshakeWatchdog::ProxyTunnelHandshakeWatchdog(
    platform::Platform& platform, double timeout, std::shared_ptr<platform::DispatchQueue> queue,
    TimeoutHandler onTimeout)
    : platform_(platform),
      timeout_(timeout),
      queue_(std::move(queue)),
      onTimeout_(std::move(onTimeout)) {}

void ProxyTunnelHandshakeWatchdog::start() {
  // Negated, so that not-a-number counts as not greater.
  if (!(timeout_ > 0.0)) {
    onTimeout_();
    return;
  }
  const auto queue = queueUnlessFinished();
  if (!queue) {
    return;
  }
  const auto timer = platform_.makeTimer(queue);
  timer->schedule(delayFor(timeout_), std::nullopt, std::chrono::nanoseconds::zero());
  timer->setEventHandler([weakSelf = weak_from_this()] {
    if (const auto self = weakSelf.lock()) {
      self->handleTimeout();
    }
  });
  if (adopt(timer)) {
    timer->resume();
  } else {
    disarm(*timer);
  }
}

std::shared_ptr<platform::DispatchQueue> ProxyTunnelHandshakeWatchdog::queueUnlessFinished() const {
  const std::lock_guard guard(lock_);
  return queue_;
}

bool ProxyTunnelHandshakeWatchdog::adopt(const std::shared_ptr<platform::DispatchTimer>& timer) {
  const std::lock_guard guard(lock_);
  if (state_ != State::idle) {
    return false;
  }
  state_ = State::running;
  timer_ = timer;
  return true;
}

void ProxyTunnelHandshakeWatchdog::handleTimeout() {
  TimeoutHandler callback;
  {
    const std::lock_guard guard(lock_);
    callback = takeTimeout();
  }
  // Closing the tunnel calls finishWithoutCallback, which takes the lock.
  if (callback) {
    callback();
  }
}

void ProxyTunnelHandshakeWatchdog::finishWithoutCallback() {
  const std::lock_guard guard(lock_);
  if (state_ == State::running) {
    finish();
  }
}

void ProxyTunnelHandshakeWatchdog::finish() {
  state_ = State::finished;
  const auto timer = std::exchange(timer_, nullptr);
  disarm(*timer);
  queue_ = nullptr;
  onTimeout_ = nullptr;
}

ProxyTunnelHandshakeWatchdog::TimeoutHandler ProxyTunnelHandshakeWatchdog::takeTimeout() {
  if (state_ != State::running) {
    return nullptr;
  }
  TimeoutHandler callback = std::move(onTimeout_);
  finish();
  return callback;
}

}  // namespace ostravel
