#include "Platform/Linux/Relay/EventLoopGroup.h"

#include <sched.h>

#include <algorithm>

#include "Base/ProgrammingError.h"

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

unsigned EventLoopGroup::usualCount(const PacketMarks& marks) {
  return std::clamp(usableCores() / 2, 1U, marks.maximumEventLoops());
}

EventLoopGroup::EventLoopGroup(DescriptorBudget& descriptors, const PacketMarks& marks)
    : EventLoopGroup(descriptors, usualCount(marks), marks) {}

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

void EventLoopGroup::setPresetsSockets(bool presets) {
  for (const auto& loop : loops_) {
    loop->setPresetsSockets(presets);
  }
}

void EventLoopGroup::setListenerFilter(int program) {
  for (const auto& loop : loops_) {
    loop->listener().setFilter(program);
  }
}

std::shared_ptr<LinuxTCPConnection> EventLoopGroup::connect(
    const platform::HostEndpoint& endpoint) {
  EventLoop* const current = EventLoop::current();
  if (current == nullptr) {
    programmingError("a connection is created on no event loop");
  }
  return LinuxTCPConnection::connect(*current, endpoint);
}

void EventLoopGroup::stop() {
  for (const auto& loop : loops_) {
    loop->stop();
  }
}

}  // namespace ostravel::linuxplatform
