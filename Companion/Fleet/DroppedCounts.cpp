#include "Companion/Fleet/DroppedCounts.h"

#include <utility>

namespace ostravel::companion {

DroppedCounts::Change DroppedCounts::add(const std::string& host, std::uint64_t total) {
  Change change;
  if (const auto known = totals_.find(host); known != totals_.end()) {
    const std::uint64_t last = std::exchange(known->second, total);
    change.since = total > last ? total - last : 0;
    return change;
  }
  if (totals_.size() >= mostMachines_) {
    totals_.clear();
    hasRestarted_ = true;
    change.isRestart = true;
  }
  totals_.emplace(host, total);
  change.before = hasRestarted_ ? 0 : total;
  return change;
}

}  // namespace ostravel::companion
