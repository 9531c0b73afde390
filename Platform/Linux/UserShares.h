#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <unordered_map>

#include "Platform/Linux/UserShare.h"

namespace ostravel::linuxplatform {

// The shares of all users who have flows. Used by the verdict thread only. A user who uses nothing
// is forgotten when there are many, so that identities that are made up cost no memory.
class UserShares {
 public:
  // Never null. Flows whose user is not known share one.
  std::shared_ptr<UserShare> of(std::optional<uid_t> user);

  std::size_t size() const { return shares_.size(); }

  // From this many on, those who use nothing are forgotten.
  static constexpr std::size_t kManyUsers = 1024;

 private:
  void forgetIdleUsers();

  std::unordered_map<uid_t, std::shared_ptr<UserShare>> shares_;
  const std::shared_ptr<UserShare> unknown_ = std::make_shared<UserShare>();
  std::size_t sweepAt_ = kManyUsers;
};

}  // namespace ostravel::linuxplatform
