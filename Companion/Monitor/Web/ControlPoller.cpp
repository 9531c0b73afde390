#include "Companion/Monitor/Web/ControlPoller.h"

#include <jansson.h>

#include <algorithm>

#include <utility>
#include <variant>

namespace ostravel::companion {

ControlPoller::ControlPoller(LiveState& state, Ask ask, std::chrono::milliseconds pause)
    : state_(state), ask_(std::move(ask)), pause_(pause), thread_([this] { run(); }) {}

ControlPoller::~ControlPoller() {
  {
    const std::lock_guard lock(mutex_);
    isEnding_ = true;
  }
  wakeUp_.notify_one();
  thread_.join();
}

void ControlPoller::run() {
  std::unique_lock lock(mutex_);
  while (!isEnding_) {
    lock.unlock();
    askStatus();
    askDecisions();
    lock.lock();
    wakeUp_.wait_for(lock, pause_, [this] { return isEnding_; });
  }
}

void ControlPoller::askStatus() {
  const ControlClient::Answer answer = ask_(JSONHandle(json_pack("{s:s}", "request", "status")));
  if (const JSONHandle* const status = std::get_if<JSONHandle>(&answer)) {
    state_.setStatus(status->get(), "");
  } else {
    state_.setStatus(nullptr, std::get<ControlClient::Failure>(answer).message);
  }
}

void ControlPoller::askDecisions() {
  constexpr int kMost = 1000;
  const ControlClient::Answer answer =
      ask_(JSONHandle(json_pack("{s:s, s:I, s:f, s:i}", "request", "decisions", "after", after_,
                                "updated_after", updatedAfter_, "limit", kMost)));
  const JSONHandle* const result = std::get_if<JSONHandle>(&answer);
  if (result == nullptr) {
    return;
  }
  const json_int_t last = json_integer_value(json_object_get(result->get(), "last"));
  const double startedAt = json_number_value(json_object_get(result->get(), "started_at"));
  // A new process counts from the beginning.
  if (last < after_ || (after_ > 0 && startedAt != startedAt_)) {
    after_ = 0;
    updatedAfter_ = 0;
    state_.restartDecisions();
    return;
  }
  startedAt_ = startedAt;
  const json_t* const decisions = json_object_get(result->get(), "decisions");
  state_.addDecisions(decisions);
  std::size_t index = 0;
  const json_t* decision = nullptr;
  json_array_foreach(decisions, index, decision) {
    after_ = std::max(after_, json_integer_value(json_object_get(decision, "sequence")));
  }
  // A second earlier, so that no step is missed that happened while the answer was being made.
  updatedAfter_ = json_number_value(json_object_get(result->get(), "now")) - 1.0;
}

}  // namespace ostravel::companion
