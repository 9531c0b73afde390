#include "Platform/Linux/Relay/EventLoop.h"

#include <pthread.h>

#include <csignal>
#include <string>
#include <utility>

#include "Platform/Linux/Relay/FlowListener.h"
#include "Platform/Linux/Services/RelayLimits.h"

namespace ostravel::linuxplatform {

namespace {

thread_local EventLoop* currentLoop = nullptr;

// Only this thread writes to sockets with splice(2), which raises SIGPIPE whatever its flags.
// Blocked, the signal stays pending on the thread and has no effect.
void blockBrokenPipeSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace

EventLoop::EventLoop(unsigned index, DescriptorBudget& descriptors, MemoryBudget& memory,
                     const PacketMarks& marks, std::shared_ptr<RedirectPath> redirectPath)
    : index_(index),
      marks_(marks),
      redirectPath_(std::move(redirectPath)),
      descriptors_(descriptors),
      memory_(memory),
      buffers_(*this),
      pipes_(*this, descriptors, memory),
      turns_({.share = limits::kBytesPerTurn, .total = limits::kBytesPerTurnOfAll},
             [this](FairTurns::Work turn) { transfers_ = std::move(turn); }),
      listener_(std::make_unique<FlowListener>(*this)),
      thread_([this] { run(); }) {}

EventLoop::~EventLoop() {
  stop();
  destroyPending();
}

EventLoop* EventLoop::current() {
  return currentLoop;
}

void EventLoop::run() {
  currentLoop = this;
  setCurrent(this);
  blockBrokenPipeSignal();
  ::pthread_setname_np(::pthread_self(), ("loop-" + std::to_string(index_)).c_str());
  while (!isStopping_) {
    runTasks();
    waitForEvents();
    timers_.runDue(LoopTimers::Clock::now());
  }
  setCurrent(nullptr);
  currentLoop = nullptr;
}

void EventLoop::post(Task work) {
  if (isCurrent()) {
    tasks_.push_back(std::move(work));
    return;
  }
  bool isWakeUpNeeded = false;
  {
    const std::lock_guard guard(lock_);
    arrivals_.push_back(std::move(work));
    isWakeUpNeeded = std::exchange(isWaiting_, false);
  }
  if (isWakeUpNeeded) {
    poller_.wake();
  }
}

void EventLoop::runTasks() {
  for (std::size_t count = 0; count < kTasksPerTurn && nextTask_ < tasks_.size(); ++count) {
    // Moved out first: the task may post others, and tasks_ may then reallocate.
    Task task = std::move(tasks_[nextTask_++]);
    task();
    if (isStopping_) {
      return;
    }
  }
  if (nextTask_ >= tasks_.size() - nextTask_) {
    tasks_.erase(tasks_.begin(), tasks_.begin() + static_cast<std::ptrdiff_t>(nextTask_));
    nextTask_ = 0;
  }
}

void EventLoop::waitForEvents() {
  if (isStopping_) {
    return;
  }
  const bool mayWait = prepareToWait(tasks_.empty() && !turns_.isAnyoneWaiting());
  poller_.wait(mayWait ? timers_.untilNext(LoopTimers::Clock::now())
                       : std::optional(std::chrono::milliseconds::zero()));
  if (mayWait) {
    static_cast<void>(prepareToWait(false));
  }
  // If transfers are waiting, the sockets that are ready go first. Otherwise this only starts the
  // accounts of a new turn.
  const bool isAnyoneWaiting = turns_.isAnyoneWaiting();
  if (!isAnyoneWaiting) {
    takeTurnOfTransfers();
  }
  handleEvents();
  if (isAnyoneWaiting) {
    takeTurnOfTransfers();
  }
}

void EventLoop::handleEvents() {
  poller_.dispatch(Poller::Rank::preferred);
  for (const Poller::Rank rank : {Poller::Rank::usual, Poller::Rank::ended}) {
    runTasks();
    if (isStopping_) {
      return;
    }
    poller_.dispatch(rank);
  }
}

bool EventLoop::prepareToWait(bool mayWait) {
  const std::lock_guard guard(lock_);
  isWaiting_ = mayWait && arrivals_.empty() && !isStopping_;
  for (Task& task : arrivals_) {
    tasks_.push_back(std::move(task));
  }
  arrivals_.clear();
  return isWaiting_;
}

void EventLoop::takeTurnOfTransfers() {
  if (const auto turn = std::exchange(transfers_, nullptr)) {
    turn();
  }
}

void EventLoop::stop() {
  {
    const std::lock_guard guard(lock_);
    isStopping_ = true;
    isWaiting_ = false;
  }
  poller_.wake();
  if (thread_.joinable()) {
    thread_.join();
    streams_.dropCompletions();
    for (WaitingQueue& waiting : std::exchange(waitingQueues_, {})) {
      waiting.pool->submit(std::move(waiting.client));
    }
  }
}

// Queues

void EventLoop::giveTurn(WorkerPool& pool, std::shared_ptr<WorkerPool::Client> client) {
  waitingQueues_.push_back({&pool, std::move(client)});
  if (waitingQueues_.size() == 1) {
    post([this] { giveTurns(); });
  }
}

void EventLoop::giveTurns() {
  for (const WaitingQueue& waiting : std::exchange(waitingQueues_, {})) {
    waiting.client->takeTurn();
  }
}

// Pending work may own streams, whose destruction may post more.
void EventLoop::destroyPending() {
  listener_.reset();
  timers_.drop();
  poller_.dropWaits();
  turns_.clear();
  std::exchange(kept_, {}).clear();
  for (bool isMore = true; isMore;) {
    std::vector<Task> pending = std::exchange(tasks_, {});
    const std::lock_guard guard(lock_);
    isMore = !arrivals_.empty();
    tasks_.swap(arrivals_);
  }
}

}  // namespace ostravel::linuxplatform
