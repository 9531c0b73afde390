#include "Tests/StandInMac/WorkQueue.h"

#include <future>
#include <utility>

#include "Tests/StandInMac/WorkerPool.h"

namespace ostravel::standin {

WorkQueue::WorkQueue(Kind kind) : WorkQueue(kind, runOnWorker) {}

void WorkQueue::async(Manner manner, std::function<void()> work) {
  submit(manner, [self = shared_from_this(), work = std::move(work)]() mutable {
    self->executor_([self, work = std::move(work)]() mutable {
      work();
      work = nullptr;
      self->finish();
    });
  });
}

void WorkQueue::sync(Manner manner, const std::function<void()>& work) {
  const auto turn = std::make_shared<std::promise<void>>();
  auto itsTurn = turn->get_future();
  submit(manner, [turn] { turn->set_value(); });
  itsTurn.wait();
  work();
  finish();
}

void WorkQueue::submit(Manner manner, std::function<void()> begin) {
  const std::lock_guard guard(lock_);
  waiting_.push_back({kind_ == Kind::serial || manner == Manner::barrier, std::move(begin)});
  advance();
}

void WorkQueue::finish() {
  const std::lock_guard guard(lock_);
  --running_;
  isRunningAlone_ = false;
  advance();
}

void WorkQueue::advance() {
  while (!waiting_.empty() && !isRunningAlone_) {
    if (waiting_.front().isAlone && running_ > 0) {
      return;
    }
    const Item item = std::move(waiting_.front());
    waiting_.pop_front();
    ++running_;
    isRunningAlone_ = item.isAlone;
    item.begin();
  }
}

}  // namespace ostravel::standin
