#include "Platform/Linux/Interception/HeldFlows.h"

#include <algorithm>
#include <utility>

namespace ostravel::linuxplatform {

void HeldFlows::add(Flow flow, TimePoint now) {
  forgetDecided();
  entries_.push_back({std::move(flow), now});
}

bool HeldFlows::isHeldFor(const Flow& flow, const SocketEndpoint& destination) const {
  return flow.destination == destination && queue_.isHeld(flow.packet);
}

bool HeldFlows::isOtherHeldFor(const SocketEndpoint& destination,
                               std::optional<pid_t> process) const {
  return std::any_of(entries_.begin(), entries_.end(), [&](const Entry& entry) {
    const bool isOther = !process || entry.flow.process != process;
    return isOther && isHeldFor(entry.flow, destination);
  });
}

bool HeldFlows::isLoopLikely(const SocketEndpoint& destination,
                             std::optional<pid_t> process) const {
  if (!process || !isOtherHeldFor(destination, process)) {
    return false;
  }
  return std::count_if(entries_.begin(), entries_.end(), [&](const Entry& entry) {
           return entry.flow.process == process && isHeldFor(entry.flow, destination);
         }) >= 2;
}

std::size_t HeldFlows::releaseOld(TimePoint now) {
  forgetDecided();
  std::size_t count = 0;
  while (!entries_.empty() && now - entries_.front().since >= kLongestHold) {
    const Flow& flow = entries_.front().flow;
    if (queue_.accept(flow.packet)) {
      flow.user->holdEnded();
      ++count;
    }
    entries_.pop_front();
  }
  return count;
}

void HeldFlows::forgetDecided() {
  while (!entries_.empty() && !queue_.isHeld(entries_.front().flow.packet)) {
    entries_.pop_front();
  }
}

}  // namespace ostravel::linuxplatform
