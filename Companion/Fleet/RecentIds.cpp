#include "Companion/Fleet/RecentIds.h"

namespace ostravel::companion {

bool RecentIds::add(const std::string& id) {
  const auto [place, isNew] = ids_.insert(id);
  if (!isNew) {
    return false;
  }
  // The set's nodes keep their addresses.
  order_.push_back(&*place);
  if (order_.size() > capacity_) {
    ids_.erase(*order_.front());
    order_.pop_front();
  }
  return true;
}

}  // namespace ostravel::companion
