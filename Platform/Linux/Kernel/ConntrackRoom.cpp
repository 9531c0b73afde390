#include "Platform/Linux/Kernel/ConntrackRoom.h"

#include <cstdint>
#include <fstream>

namespace ostravel::linuxplatform {

namespace {

// 0 if the file contains no number.
std::uint64_t numberIn(const std::string& path) {
  std::uint64_t number = 0;
  std::ifstream(path) >> number;
  return number;
}

}  // namespace

bool ConntrackRoom::operator()() {
  const std::uint64_t limit = numberIn(folder_ + "/nf_conntrack_max");
  const std::uint64_t count = numberIn(folder_ + "/nf_conntrack_count");
  const std::uint64_t most = isThere_ ? limit - limit / 10 : limit - limit / 4;
  isThere_ = limit == 0 || count < most;
  return isThere_;
}

}  // namespace ostravel::linuxplatform
