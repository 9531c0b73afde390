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

// The shares of all users who have flows. Used by the verdict thread only. A user who uses nothing
// is forgotten when there are many, so that identities that are made up cost no memory.
class UserShares {
 public:
  // Never null. Flows whose user is not known share one.
  std::shared_ptr<UserShare> of(std::optional<uid_t> user);

  // An application of this user is being proxied. A user counts as active for kActivity after that.
  void noteActivity(const UserShare& share, UserShare::Clock::time_point now);
  // Whether anybody but this user is active, who would have to wait while this one is served.
  bool isOtherActive(const UserShare& share, UserShare::Clock::time_point now) const;

  std::size_t size() const { return shares_.size(); }

  static constexpr std::chrono::seconds kActivity{2};

  // From this many on, those who use nothing are forgotten.
  static constexpr std::size_t kManyUsers = 1024;

 private:
  void forgetIdleUsers();

  std::unordered_map<uid_t, std::shared_ptr<UserShare>> shares_;
  const std::shared_ptr<UserShare> unknown_ = std::make_shared<UserShare>();
  std::size_t sweepAt_ = kManyUsers;

  struct Activity {
    // Only compared, since the share may be gone.
    const UserShare* share = nullptr;
    UserShare::Clock::time_point time;
  };
  // The two users who were active last, latest first. At least one of them is not the user in
  // question.
  std::array<Activity, 2> active_;
};

}  // namespace ostravel::linuxplatform
