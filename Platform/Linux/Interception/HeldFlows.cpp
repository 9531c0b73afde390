#include "Platform/Linux/Interception/HeldFlows.h"

#include <algorithm>

namespace ostravel::linuxplatform {

void HeldFlows::add(const std::shared_ptr<QueuedPacket::State>& packet, const FlowTuple& tuple,
                    std::optional<pid_t> process, TimePoint now) {
  forgetDecided();
  entries_.push_back({packet, tuple.destination, process, now});
}

bool HeldFlows::isHeldFor(const Entry& entry, const SocketEndpoint& destination) {
  const auto packet = entry.packet.lock();
  return packet && !packet->isDecided() && entry.destination == destination;
}

bool HeldFlows::isOtherHeldFor(const SocketEndpoint& destination,
                               std::optional<pid_t> process) const {
  return std::any_of(entries_.begin(), entries_.end(), [&](const Entry& entry) {
    const bool isOther = !process || entry.process != process;
    return isOther && isHeldFor(entry, destination);
  });
}

bool HeldFlows::isLoopLikely(const SocketEndpoint& destination,
                             std::optional<pid_t> process) const {
  if (!process || !isOtherHeldFor(destination, process)) {
    return false;
  }
  return std::count_if(entries_.begin(), entries_.end(), [&](const Entry& entry) {
           return entry.process == process && isHeldFor(entry, destination);
         }) >= 2;
}

std::size_t HeldFlows::releaseOld(TimePoint now) {
  forgetDecided();
  std::size_t count = 0;
  while (!entries_.empty() && now - entries_.front().since >= kLongestHold) {
    if (const auto packet = entries_.front().packet.lock(); packet && !packet->isDecided()) {
      packet->accept();
      ++count;
    }
    entries_.pop_front();
  }
  return count;
}

void HeldFlows::releaseAll() {
  for (const Entry& entry : entries_) {
    if (const auto packet = entry.packet.lock()) {
      packet->accept();
    }
  }
  entries_.clear();
}

void HeldFlows::forgetDecided() {
  while (!entries_.empty()) {
    const auto packet = entries_.front().packet.lock();
    if (packet && !packet->isDecided()) {
      return;
    }
    entries_.pop_front();
  }
}

}  // namespace ostravel::linuxplatform
