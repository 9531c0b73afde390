#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

namespace ostravel::companion {

// Turns the totals of dropped events that machines send along into what is new. Owned by the
// subscriber.
//
// There is a limit on the machines. One more means that somebody invents names, so the counts start
// again: the machines that follow count from their next totals on, because their earlier ones may
// have been counted already.
class DroppedCounts {
 public:
  explicit DroppedCounts(std::size_t mostMachines) : mostMachines_(mostMachines) {}

  struct Change {
    std::uint64_t before = 0;  // dropped before the first message of the machine
    std::uint64_t since = 0;   // dropped since its last message
    bool isRestart = false;    // the counts start again with this message
  };
  // total: what this machine has dropped so far.
  Change add(const std::string& host, std::uint64_t total);

 private:
  const std::size_t mostMachines_;
  std::unordered_map<std::string, std::uint64_t> totals_;
  bool hasRestarted_ = false;
};

}  // namespace ostravel::companion
