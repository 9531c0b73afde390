#include "Platform/Linux/Liveness/Heartbeat.h"

#include <pthread.h>

#include <utility>

namespace ostravel::linuxplatform {

namespace {

// The interval while an answer is missing, so that a late answer on a busy machine does not delay
// the beat by a whole interval.
constexpr std::chrono::milliseconds kRetryInterval{25};

}  // namespace

struct Heartbeat::Membership::State {
  HeartbeatParticipants participant;
  Ping ping;
  std::function<void()> onBeat;
  std::shared_ptr<std::atomic<bool>> hasAnswered = std::make_shared<std::atomic<bool>>(false);
};

Heartbeat::Membership::Membership(Heartbeat& heartbeat, std::shared_ptr<State> state)
    : heartbeat_(heartbeat), state_(std::move(state)) {}

Heartbeat::Membership::Membership(Membership&& other) noexcept
    : heartbeat_(other.heartbeat_), state_(std::exchange(other.state_, nullptr)) {}

Heartbeat::Membership::~Membership() {
  if (state_) {
    heartbeat_.leave(state_);
  }
}

void Heartbeat::Membership::answer() const {
  *state_->hasAnswered = true;
}

Heartbeat::Heartbeat(HeartbeatRecord& record) : record_(record) {}

Heartbeat::~Heartbeat() {
  stop();
}

Heartbeat::Membership Heartbeat::join(HeartbeatParticipants participant, Ping ping,
                                      std::function<void()> onBeat) {
  auto state = std::make_shared<Membership::State>();
  state->participant = participant;
  state->ping = std::move(ping);
  state->onBeat = std::move(onBeat);
  const std::lock_guard guard(mutex_);
  members_.push_back(state);
  state->ping(Answer(state->hasAnswered));
  return {*this, std::move(state)};
}

void Heartbeat::leave(const std::shared_ptr<Membership::State>& state) {
  const std::lock_guard guard(mutex_);
  std::erase(members_, state);
}

void Heartbeat::start() {
  record_.enter(HeartbeatRecord::Phase::running);
  thread_ = std::thread([this] { run(); });
}

void Heartbeat::stop() {
  if (!thread_.joinable()) {
    return;
  }
  {
    const std::lock_guard guard(mutex_);
    isStopping_ = true;
  }
  wakeUp_.notify_all();
  thread_.join();
  record_.enter(HeartbeatRecord::Phase::stopping);
}

void Heartbeat::run() {
  ::pthread_setname_np(::pthread_self(), "heartbeat");
  while (true) {
    const auto untilNext = check() ? kInterval : kRetryInterval;
    std::unique_lock lock(mutex_);
    if (wakeUp_.wait_for(lock, untilNext, [this] { return isStopping_; })) {
      return;
    }
  }
}

bool Heartbeat::check() {
  const std::lock_guard guard(mutex_);
  HeartbeatParticipants laggards = 0;
  for (const auto& member : members_) {
    if (!*member->hasAnswered) {
      laggards |= member->participant;
    }
  }
  record_.noteCheck(laggards);
  if (laggards != 0) {
    return false;
  }
  record_.beat();
  for (const auto& member : members_) {
    if (member->onBeat) {
      member->onBeat();
    }
    *member->hasAnswered = false;
    member->ping(Answer(member->hasAnswered));
  }
  return true;
}

}  // namespace ostravel::linuxplatform
