#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>

#include "Base/ReferenceCounted.h"

namespace ostravel::linuxplatform {

// The resources that the flows of one user are using, and whether the local proxy answers them.
// Created by UserShares; shared with all objects that use part of it and return that part on any
// thread. Usable from any thread, except exceedsRate().
class UserShare final : public ReferenceCounted {
 public:
  using Clock = std::chrono::steady_clock;

  // Offers that a user may have in a burst, and per second after that, while other users are
  // active: more than a busy machine's services need, less than what saturates a processor.
  static constexpr double kOfferBurst = 400;
  static constexpr double kOffersPerSecond = 400;
  // Pauses between trials of a proxy that does not answer: the first one, doubled each time, and
  // the longest.
  static constexpr std::chrono::seconds kShortestTrialPause{1};
  static constexpr std::chrono::seconds kLongestTrialPause{15};

  UserShare() = default;

  // First packets that are held for a handshake.
  void holdBegan() { held_.fetch_add(1, std::memory_order_relaxed); }
  void holdEnded() { held_.fetch_sub(1, std::memory_order_relaxed); }
  std::size_t held() const { return held_.load(std::memory_order_relaxed); }

  // A handshake has reached its deadline. Until one succeeds, the user's flows are offered one at a
  // time with growing pauses, so that a proxy that never answers does not delay every connection.
  // Handshakes that time out together count as one.
  void handshakeTimedOut(Clock::time_point now);
  void handshakeSucceeded() { failedTrials_.store(0, std::memory_order_relaxed); }
  bool isOnTrial() const { return failedTrials_.load(std::memory_order_relaxed) > 0; }
  bool isTrialDue(Clock::time_point now) const {
    return now.time_since_epoch() >= nextTrial_.load(std::memory_order_relaxed);
  }

  // Counts an offer; true if it exceeds the user's limit while other users are active. Only on the
  // thread that offers flows.
  bool exceedsRate(Clock::time_point now);

  // The user's descriptors of sockets and pipes, and bytes of chunks that wait for a reader.
  std::atomic<std::size_t>& descriptors() { return descriptors_; }
  std::atomic<std::size_t>& memory() { return memory_; }

  // True if it equals a new one.
  bool isIdle() const { return held() == 0 && !isOnTrial() && descriptors_ == 0 && memory_ == 0; }

 private:
  std::atomic<std::size_t> held_ = 0;
  std::atomic<unsigned> failedTrials_ = 0;
  std::atomic<Clock::duration> nextTrial_ = Clock::duration::min();
  std::atomic<std::size_t> descriptors_ = 0;
  std::atomic<std::size_t> memory_ = 0;
  // Used by exceedsRate() alone: the offers left, and when they were counted.
  double offersLeft_ = kOfferBurst;
  Clock::time_point lastOffer_;
};

}  // namespace ostravel::linuxplatform
