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

// Beats as long as everybody who has joined makes progress. Each participant is pinged once per
// beat, and the next beat comes only after all have answered. A thread of its own, so that it
// depends on none of those that it watches. Owned by the process entry; outlives the memberships.
//
// What the beat does not cover: the main thread, which only waits for signals, and the alive
// keeper, which the kernel may keep waiting for other users of nf_tables; while it waits, packets
// stop being offered, so it holds up nobody.
class Heartbeat {
 public:
  // A quarter of the time after which packets stop being offered and of that after which the
  // guardian kills, so that one late beat does not matter.
  static constexpr std::chrono::milliseconds kInterval{250};

  // Reports that a participant has made progress. Callable from any thread, at any time, also when
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

  // Makes the participant call answer() from where its work is done. Runs on the heartbeat's thread
  // or in join(); must return at once. Never called again before the answer.
  using Ping = std::function<void(Answer answer)>;

  // Ends with its destruction; neither function of the participant runs afterwards.
  class Membership {
   public:
    Membership(Membership&& other) noexcept;
    Membership& operator=(Membership&& other) = delete;
    ~Membership();

    // The same as calling the Answer that the ping was given.
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

  // From now on the beat waits for this participant too. onBeat, which may be empty, runs with
  // every beat, on the heartbeat's thread; it must return at once.
  [[nodiscard]] Membership join(HeartbeatParticipants participant, Ping ping,
                                std::function<void()> onBeat);

  // Starts the thread, and with it the running phase.
  void start();
  // Ends the thread, and begins the stopping phase. The thread that stops the process beats from
  // now on. Idempotent.
  void stop();

  // Beats if everybody has answered; whether it did. Called by the thread.
  bool check();

 private:
  void run();
  void leave(const std::shared_ptr<Membership::State>& state);

  HeartbeatRecord& record_;
  // Guards everything below it but the thread.
  std::mutex mutex_;
  std::vector<std::shared_ptr<Membership::State>> members_;
  bool isStopping_ = false;
  std::condition_variable wakeUp_;
  std::thread thread_;
};

}  // namespace ostravel::linuxplatform
