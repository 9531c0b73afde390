#pragma once

#include <atomic>
#include <cstddef>

namespace ostravel::linuxplatform {

// What the flows of one user are using at this moment, and whether the local proxy answers them.
// Made by UserShares for the verdict thread; shared with everything that uses a part of it, which
// gives the part back on any thread.
class UserShare {
 public:
  UserShare() = default;
  UserShare(const UserShare&) = delete;
  UserShare& operator=(const UserShare&) = delete;

  // First packets that are held for a handshake.
  void holdBegan() { held_.fetch_add(1, std::memory_order_relaxed); }
  void holdEnded() { held_.fetch_sub(1, std::memory_order_relaxed); }
  std::size_t held() const { return held_.load(std::memory_order_relaxed); }

  // A handshake has reached its deadline: until one succeeds, the user's flows are offered one at a
  // time, so that a proxy that never answers does not delay connections over and over.
  void handshakeTimedOut() { isOnTrial_.store(true, std::memory_order_relaxed); }
  void handshakeSucceeded() { isOnTrial_.store(false, std::memory_order_relaxed); }
  bool isOnTrial() const { return isOnTrial_.load(std::memory_order_relaxed); }

  // Descriptors of sockets and pipes, and bytes of memory that wait for a reader.
  std::atomic<std::size_t>& descriptors() { return descriptors_; }
  std::atomic<std::size_t>& memory() { return memory_; }

  // Nothing would be lost by forgetting it.
  bool isIdle() const { return held() == 0 && !isOnTrial() && descriptors_ == 0 && memory_ == 0; }

 private:
  std::atomic<std::size_t> held_ = 0;
  std::atomic<bool> isOnTrial_ = false;
  std::atomic<std::size_t> descriptors_ = 0;
  std::atomic<std::size_t> memory_ = 0;
};

}  // namespace ostravel::linuxplatform
