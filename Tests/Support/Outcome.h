#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "Platform/Interface/Completion.h"

namespace ostravel::testing {

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

// The outcome of operations: its completions may be given to any number of them. Usable from
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
      state->lastText.clear();
      if (data) {
        const auto bytes = data->bytes();
        state->lastText.assign(reinterpret_cast<const char*>(bytes.data()), bytes.size());
      }
      state->text += state->lastText;
      state->isEmptyData = data && data->empty();
      state->isEnd = state->lastText.empty() && !state->error;
    };
  }

  int count() const { return locked(&State::count); }
  bool isDone() const { return count() > 0; }
  // Of the last one that completed.
  platform::OptionalError error() const { return locked(&State::error); }
  // What the last read delivered.
  std::string lastText() const { return locked(&State::lastText); }
  std::size_t lastSize() const { return lastText().size(); }
  // Everything that was read.
  std::string text() const { return locked(&State::text); }
  // The last read reported the end of the stream, and whether it did so with data of no bytes.
  bool isEnd() const { return locked(&State::isEnd); }
  bool isEmptyData() const { return locked(&State::isEmptyData); }
  bool ranInsideCall() const { return locked(&State::ranInsideCall); }

 private:
  struct State {
    std::mutex lock;
    int count = 0;
    platform::OptionalError error;
    std::string lastText;
    std::string text;
    bool isEnd = false;
    bool isEmptyData = false;
    bool ranInsideCall = false;
  };

  template <typename Value>
  Value locked(Value State::*member) const {
    const std::lock_guard guard(state_->lock);
    return (*state_).*member;
  }

  std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace ostravel::testing
