#include "Platform/Linux/Kernel/ConntrackRoom.h"

#include <cstdint>
#include <memory>

namespace ostravel::linuxplatform {

ConntrackRoom::ConntrackRoom()
    : ConntrackRoom([entries = std::make_shared<ConntrackEntries>()] { return entries->usage(); }) {
}

bool ConntrackRoom::operator()() {
  const auto usage = read_();
  const std::uint32_t limit = usage ? usage->limit : 0;
  const std::uint32_t most = isThere_ ? limit - limit / 10 : limit - limit / 4;
  isThere_ = limit == 0 || usage->count < most;
  return isThere_;
}

}  // namespace ostravel::linuxplatform
