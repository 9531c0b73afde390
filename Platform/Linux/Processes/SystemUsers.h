#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace ostravel::linuxplatform {

// Distinguishes root and service users from users who log in, by the range of user IDs that
// login.defs(5) reserves for system users. A value type; usable from any thread.
class SystemUsers {
 public:
  static constexpr const char* kDefaultPath = "/etc/login.defs";

  // The highest ID of a system user. 999 unless the file says otherwise.
  explicit SystemUsers(uid_t last = kDefaultLast) : last_(last) {}

  // SYS_UID_MAX from the file, else UID_MIN - 1, else the default.
  static SystemUsers read(const std::string& path = kDefaultPath);

  // True for root and system users. The user "nobody" is neither.
  bool includes(uid_t user) const { return user <= last_; }

  // The ID of the user with this name; empty if there is none. Queries the name service, which may
  // block on a network: only for startup and for reading configuration.
  static std::optional<uid_t> numberOf(const std::string& name);

 private:
  static constexpr uid_t kDefaultLast = 999;

  uid_t last_;
};

}  // namespace ostravel::linuxplatform
