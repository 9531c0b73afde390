#include "Platform/Linux/Services/UserShares.h"

#include <algorithm>

namespace ostravel::linuxplatform {

Reference<UserShare> UserShares::of(std::optional<uid_t> user) {
  if (!user) {
    return unknown_;
  }
  const auto found = shares_.find(*user);
  if (found != shares_.end()) {
    return found->second;
  }
  if (shares_.size() >= sweepAt_) {
    forgetIdleUsers();
  }
  return shares_.emplace(*user, makeReference<UserShare>()).first->second;
}

void UserShares::noteActivity(const UserShare& share, UserShare::Clock::time_point now) {
  if (active_[0].share != &share) {
    active_[1] = active_[0];
  }
  active_[0] = {&share, now};
}

bool UserShares::isOtherActive(const UserShare& share, UserShare::Clock::time_point now) const {
  return std::any_of(active_.begin(), active_.end(), [&share, now](const Activity& each) {
    return each.share != nullptr && each.share != &share && now - each.time < kActivity;
  });
}

void UserShares::forgetIdleUsers() {
  // Only this thread creates references from the map, so a use count of one cannot rise.
  std::erase_if(shares_, [](const auto& entry) {
    return entry.second.count() == 1 && entry.second->isIdle();
  });
  sweepAt_ = std::max(kManyUsers, shares_.size() * 2);
}

}  // namespace ostravel::linuxplatform
