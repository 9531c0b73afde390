#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <unordered_map>

#include "Platform/Linux/Services/UserShare.h"

namespace ostravel::linuxplatform {

// The shares of all users who have flows. Not thread-safe. When there are many, idle ones are
// dropped, so that invented user IDs cost no memory.
class UserShares {
 public:
  // Never null. Flows without a known user share one.
  Reference<UserShare> of(std::optional<uid_t> user);

  // An application of this user is being proxied. The user counts as active for kActivity after
  // that.
  void noteActivity(const UserShare& share, UserShare::Clock::time_point now);
  // True if another user is active, and would have to wait while this one is served.
  bool isOtherActive(const UserShare& share, UserShare::Clock::time_point now) const;

  std::size_t size() const { return shares_.size(); }

  static constexpr std::chrono::seconds kActivity{2};

  // At this many, idle shares are dropped.
  static constexpr std::size_t kManyUsers = 1024;

 private:
  void forgetIdleUsers();

  std::unordered_map<uid_t, Reference<UserShare>> shares_;
  const Reference<UserShare> unknown_ = makeReference<UserShare>();
  std::size_t sweepAt_ = kManyUsers;

  struct Activity {
    // Only compared: the share may have been destroyed.
    const UserShare* share = nullptr;
    UserShare::Clock::time_point time;
  };
  // The two users who were active last, latest first, so that at least one of them differs from any
  // given user.
  std::array<Activity, 2> active_;
};

}  // namespace ostravel::linuxplatform
