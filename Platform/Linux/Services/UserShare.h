#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>

namespace ostravel::linuxplatform {

// What the flows of one user are using at this moment, and whether the local proxy answers them.
// Made by UserShares for the verdict thread; shared with everything that uses a part of it, which
// gives the part back on any thread. Usable from any thread, except exceedsRate().
class UserShare {
 public:
  using Clock = std::chrono::steady_clock;

  // Offers in one go, and per second after that, which a user may have although others want to be
  // served: more than a busy machine's own services make, less than what fills a processor.
  static constexpr double kOfferBurst = 400;
  static constexpr double kOffersPerSecond = 400;
  // Pauses between trials of a proxy that goes on not answering: the first, doubled each time.
  static constexpr std::chrono::seconds kShortestTrialPause{1};
  static constexpr std::chrono::seconds kLongestTrialPause{15};

  UserShare() = default;
  UserShare(const UserShare&) = delete;
  UserShare& operator=(const UserShare&) = delete;

  // First packets that are held for a handshake.
  void holdBegan() { held_.fetch_add(1, std::memory_order_relaxed); }
  void holdEnded() { held_.fetch_sub(1, std::memory_order_relaxed); }
  std::size_t held() const { return held_.load(std::memory_order_relaxed); }

  // A handshake has reached its deadline: until one succeeds, the user's flows are offered one at a
  // time and with growing pauses, so that a proxy that never answers does not delay connections
  // over and over. Those that reach it together count as one.
  void handshakeTimedOut(Clock::time_point now);
  void handshakeSucceeded() { failedTrials_.store(0, std::memory_order_relaxed); }
  bool isOnTrial() const { return failedTrials_.load(std::memory_order_relaxed) > 0; }
  bool mayBeTried(Clock::time_point now) const {
    return now.time_since_epoch() >= nextTrial_.load(std::memory_order_relaxed);
  }

  // Counts an offer; true when it exceeds what the user may have while others want to be served.
  // Only on the verdict thread.
  bool exceedsRate(Clock::time_point now);

  // Descriptors of sockets and pipes, and bytes of memory that wait for a reader.
  std::atomic<std::size_t>& descriptors() { return descriptors_; }
  std::atomic<std::size_t>& memory() { return memory_; }

  // Nothing would be lost by forgetting it.
  bool isIdle() const { return held() == 0 && !isOnTrial() && descriptors_ == 0 && memory_ == 0; }

 private:
  std::atomic<std::size_t> held_ = 0;
  std::atomic<unsigned> failedTrials_ = 0;
  std::atomic<Clock::duration> nextTrial_ = Clock::duration::min();
  std::atomic<std::size_t> descriptors_ = 0;
  std::atomic<std::size_t> memory_ = 0;
  // Used by exceedsRate() alone: the offers that are left, and when they were counted.
  double offersLeft_ = kOfferBurst;
  Clock::time_point lastOffer_;
};

}  // namespace ostravel::linuxplatform
