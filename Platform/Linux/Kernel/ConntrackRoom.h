#pragma once

#include <string>
#include <utility>

namespace ostravel::linuxplatform {

// Tells whether the kernel can track more connections in this network namespace. Copyable; used by
// one thread at a time.
class ConntrackRoom {
 public:
  // folder: contains nf_conntrack_count and nf_conntrack_max.
  explicit ConntrackRoom(std::string folder = "/proc/sys/net/netfilter")
      : folder_(std::move(folder)) {}

  // False from the moment when nine tenths of the entries are in use until less than three quarters
  // are. True if the kernel reports no limit.
  bool operator()();

 private:
  std::string folder_;
  bool isThere_ = true;
};

}  // namespace ostravel::linuxplatform
