#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Platform/Linux/Liveness/HeartbeatParticipants.h"
#include "Platform/Linux/Liveness/HeartbeatRecord.h"

namespace ostravel::linuxplatform {

// Beats as long as all participants make progress. Each participant is pinged once per beat, and
// the next beat comes only after all have answered. Has its own thread, so that it does not depend
// on the threads that it monitors. Owned by the process entry; outlives the memberships.
//
// The beat does not cover the main thread, which only waits for signals, nor the alive keeper,
// which the kernel may block behind other users of nf_tables. While the alive keeper is blocked,
// packets stop being offered, so it delays no flow.
class Heartbeat {
 public:
  // A quarter of the time-outs after which packets are no longer offered and the guardian kills the
  // process, so that one late beat does no harm.
  static constexpr std::chrono::milliseconds kInterval{250};

  // Reports that a participant has made progress. Callable from any thread, at any time, even after
  // the membership has ended.
  class Answer {
   public:
    void operator()() const { *hasAnswered_ = true; }

   private:
    friend class Heartbeat;
    explicit Answer(std::shared_ptr<std::atomic<bool>> hasAnswered)
        : hasAnswered_(std::move(hasAnswered)) {}
    std::shared_ptr<std::atomic<bool>> hasAnswered_;
  };

  // Makes the participant call answer() on the thread that does its work. Runs on the heartbeat's
  // thread or in join(); must not block. Not called again before the answer.
  using Ping = std::function<void(Answer answer)>;

  // Ends on destruction; neither of the participant's functions runs afterwards.
  class Membership {
   public:
    Membership(Membership&& other) noexcept;
    Membership& operator=(Membership&& other) = delete;
    ~Membership();

    // Equivalent to calling the Answer that was passed to the ping.
    void answer() const;

   private:
    friend class Heartbeat;
    struct State;
    Membership(Heartbeat& heartbeat, std::shared_ptr<State> state);

    Heartbeat& heartbeat_;
    std::shared_ptr<State> state_;
  };

  explicit Heartbeat(HeartbeatRecord& record);
  Heartbeat(const Heartbeat&) = delete;
  Heartbeat& operator=(const Heartbeat&) = delete;
  ~Heartbeat();

  // From now on the beat waits for this participant too. onBeat, which may be empty, runs on every
  // beat, on the heartbeat's thread; it must not block.
  [[nodiscard]] Membership join(HeartbeatParticipants participant, Ping ping,
                                std::function<void()> onBeat);

  // Starts the thread and enters the running phase.
  void start();
  // Ends the thread and enters the stopping phase; from then on the thread that stops the process
  // beats. Idempotent.
  void stop();

  // Beats if all participants have answered; true if it did. Called by the thread.
  bool check();

 private:
  void run();
  void leave(const std::shared_ptr<Membership::State>& state);

  HeartbeatRecord& record_;
  // Guards the members below except the thread.
  std::mutex mutex_;
  std::vector<std::shared_ptr<Membership::State>> members_;
  bool isStopping_ = false;
  std::condition_variable wakeUp_;
  std::thread thread_;
};

}  // namespace ostravel::linuxplatform
