#pragma once

#include <atomic>
#include <cstdint>

#include "Platform/Linux/Liveness/HeartbeatParticipants.h"

namespace ostravel::linuxplatform {

// Memory that the extension shares with its guardian: the extension records its progress, and the
// guardian reads it. Created by the process entry before the guardian is forked; exists as long as
// either process. Usable from any thread; no call blocks.
class HeartbeatRecord {
 public:
  enum class Phase : std::uint32_t {
    starting,  // nothing is intercepted yet
    running,   // the heartbeat is running
    stopping,  // an orderly shutdown is in progress
  };

  // Throws std::system_error if the memory cannot be allocated.
  HeartbeatRecord();
  HeartbeatRecord(const HeartbeatRecord&) = delete;
  HeartbeatRecord& operator=(const HeartbeatRecord&) = delete;
  ~HeartbeatRecord();

  // The process has made progress.
  void beat() { shared_->beats.fetch_add(1, std::memory_order_relaxed); }
  // A new phase counts as progress.
  void enter(Phase phase) {
    shared_->phase = phase;
    beat();
  }
  // The heartbeat has checked all participants; these have not answered yet.
  void noteCheck(HeartbeatParticipants laggards) {
    shared_->laggards = laggards;
    shared_->checks.fetch_add(1, std::memory_order_relaxed);
  }

  std::uint32_t beats() const { return shared_->beats; }
  Phase phase() const { return shared_->phase; }
  HeartbeatParticipants laggards() const { return shared_->laggards; }
  std::uint32_t checks() const { return shared_->checks; }

 private:
  struct Shared {
    std::atomic<std::uint32_t> beats = 0;
    std::atomic<Phase> phase = Phase::starting;
    std::atomic<HeartbeatParticipants> laggards = 0;
    std::atomic<std::uint32_t> checks = 0;
  };
  // Processes cannot share a lock: one of them might hang while holding it.
  static_assert(std::atomic<std::uint32_t>::is_always_lock_free);
  static_assert(std::atomic<Phase>::is_always_lock_free);

  Shared* shared_;
};

}  // namespace ostravel::linuxplatform
