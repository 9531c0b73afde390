#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <utility>

#include "Tests/Simulator/World.h"

namespace ostravel::simulator {

// Keeps the completions of one flow and of its connection from running inside one another, also
// when one of them is preempted: what arrives in the meantime runs later, in order. Shared by the
// two.
class Strand : public std::enable_shared_from_this<Strand> {
 public:
  explicit Strand(World& world) : world_(world) {}

  template <typename Work>
  void run(std::uint32_t flow, Work work) {
    if (isBusy_ || !waiting_.empty()) {
      // A completion has data that can be moved and not copied.
      waiting_.push_back([flow, this, shared = std::make_shared<Work>(std::move(work))] {
        perform(flow, *shared);
      });
      if (!isBusy_) {
        postNext();
      }
      return;
    }
    perform(flow, work);
    postNext();
  }

  // Also while the item that runs on it is preempted.
  bool isBusy() const { return isBusy_; }

  // At the end of a run.
  void dropWaiting() { waiting_.clear(); }

 private:
  template <typename Work>
  void perform(std::uint32_t flow, Work& work) {
    isBusy_ = true;
    {
      const ActorScope actor(world_, flow);
      work();
    }
    isBusy_ = false;
  }

  void postNext() {
    if (waiting_.empty() || std::exchange(isPosted_, true)) {
      return;
    }
    world_.queue().post([self = this->shared_from_this()] {
      self->isPosted_ = false;
      if (self->isBusy_ || self->waiting_.empty()) {
        return;
      }
      const auto next = std::move(self->waiting_.front());
      self->waiting_.pop_front();
      next();
      self->postNext();
    });
  }

  World& world_;
  bool isBusy_ = false;
  bool isPosted_ = false;
  std::deque<std::function<void()>> waiting_;
};

}  // namespace ostravel::simulator
