#include "Platform/Linux/Relay/EventLoopGroup.h"

#include <sched.h>

#include <algorithm>

namespace ostravel::linuxplatform {

namespace {

unsigned usableCores() {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  if (::sched_getaffinity(0, sizeof cores, &cores) != 0) {
    return 1;
  }
  return static_cast<unsigned>(CPU_COUNT(&cores));
}

}  // namespace

EventLoopGroup::EventLoopGroup(DescriptorBudget& descriptors, const PacketMarks& marks)
    : EventLoopGroup(descriptors, usableCores(), marks) {}

EventLoopGroup::EventLoopGroup(DescriptorBudget& descriptors, unsigned count,
                               const PacketMarks& marks)
    : marks_(marks), redirectPath_(std::make_shared<RedirectPath>()) {
  count = std::clamp(count, 1U, marks.maximumEventLoops());
  for (unsigned index = 0; index < count; ++index) {
    loops_.push_back(
        std::make_unique<EventLoop>(index, descriptors, memory_, marks_, redirectPath_));
  }
}

EventLoopGroup::~EventLoopGroup() {
  stop();
}

std::shared_ptr<LinuxTCPConnection> EventLoopGroup::connect(
    const platform::HostEndpoint& endpoint) {
  return LinuxTCPConnection::connect(nextLoop(), endpoint);
}

EventLoop& EventLoopGroup::nextLoop() {
  EventLoop* const current = EventLoop::current();
  const bool isOurs = std::any_of(loops_.begin(), loops_.end(),
                                  [current](const auto& loop) { return loop.get() == current; });
  return isOurs ? *current : loop(next_.fetch_add(1, std::memory_order_relaxed) % size());
}

void EventLoopGroup::stop() {
  for (const auto& loop : loops_) {
    loop->stop();
  }
}

}  // namespace ostravel::linuxplatform
