#include "Platform/Linux/Interception/CountedDatagrams.h"

namespace ostravel::linuxplatform {

bool CountedDatagrams::isNew(const FlowTuple& flow, std::string_view result, TimePoint now) {
  const auto known = positions_.find(flow);
  if (known != positions_.end()) {
    entries_.splice(entries_.begin(), entries_, known->second);
    Entry& entry = entries_.front();
    const bool isNew = entry.result != result || now - entry.last >= kLifetime;
    entry.result = result;
    entry.last = now;
    return isNew;
  }
  if (entries_.size() >= capacity_) {
    positions_.erase(entries_.back().flow);
    entries_.pop_back();
  }
  entries_.push_front({flow, result, now});
  positions_.emplace(flow, entries_.begin());
  return true;
}

}  // namespace ostravel::linuxplatform
