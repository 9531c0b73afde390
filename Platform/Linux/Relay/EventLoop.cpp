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
             [this](FairTurns::Work turn) { post(std::move(turn)); }),
      // Run by one thread; any thread may post to it.
      context_(1),
      work_(context_.get_executor()),
      listener_(std::make_unique<FlowListener>(*this)),
      thread_([this] { run(); }) {}

EventLoop::~EventLoop() {
  stop();
}

EventLoop* EventLoop::current() {
  return currentLoop;
}

void EventLoop::run() {
  currentLoop = this;
  blockBrokenPipeSignal();
  ::pthread_setname_np(::pthread_self(), ("loop-" + std::to_string(index_)).c_str());
  context_.run();
  currentLoop = nullptr;
}

void EventLoop::stop() {
  context_.stop();
  if (thread_.joinable()) {
    thread_.join();
    streams_.dropCompletions();
  }
}

}  // namespace ostravel::linuxplatform
