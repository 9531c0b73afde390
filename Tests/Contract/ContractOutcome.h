#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "Platform/Interface/Completion.h"

namespace ostravel::contract {

// Starts an operation. A completion of an Outcome that runs inside the call is noticed by it.
class CallInProgress {
 public:
  template <typename Call>
  static void run(Call&& call) {
    isRunning_ = true;
    std::forward<Call>(call)();
    isRunning_ = false;
  }
  static bool isRunning() { return isRunning_; }

 private:
  static inline thread_local bool isRunning_ = false;
};

// What has become of operations: its completions may be given to any number of them. Usable from
// any thread; the completions may outlive it.
class Outcome {
 public:
  platform::ErrorCompletion completion() {
    return [state = state_](platform::OptionalError error) {
      const std::lock_guard guard(state->lock);
      ++state->count;
      state->ranInsideCall |= CallInProgress::isRunning();
      state->error = std::move(error);
    };
  }
  platform::ReadCompletion readCompletion() {
    return [state = state_](std::optional<platform::Data> data, platform::OptionalError error) {
      const std::lock_guard guard(state->lock);
      ++state->count;
      state->ranInsideCall |= CallInProgress::isRunning();
      state->error = std::move(error);
      state->lastSize = data ? data->size() : 0;
      if (data) {
        const auto bytes = data->bytes();
        state->text.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
      }
      state->sawEnd |= state->lastSize == 0 && !state->error;
    };
  }

  int count() const { return locked(&State::count); }
  bool isDone() const { return count() > 0; }
  // Of the last one that completed.
  platform::OptionalError error() const { return locked(&State::error); }
  std::size_t lastSize() const { return locked(&State::lastSize); }
  // Everything that was read.
  std::string text() const { return locked(&State::text); }
  // A read reported the end of the stream.
  bool sawEnd() const { return locked(&State::sawEnd); }
  bool ranInsideCall() const { return locked(&State::ranInsideCall); }

 private:
  struct State {
    std::mutex lock;
    int count = 0;
    platform::OptionalError error;
    std::size_t lastSize = 0;
    std::string text;
    bool sawEnd = false;
    bool ranInsideCall = false;
  };

  template <typename Value>
  Value locked(Value State::*member) const {
    const std::lock_guard guard(state_->lock);
    return (*state_).*member;
  }

  const std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace ostravel::contract
