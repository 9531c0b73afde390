#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace ostravel::linuxplatform {

// Tells root and the users that run services from the users that people work as, by the range of
// numbers that login.defs(5) reserves for the former. A value; safe to use from any thread.
class SystemUsers {
 public:
  static constexpr const char* kDefaultPath = "/etc/login.defs";

  // The highest number of a system user. 999 unless the file says otherwise.
  explicit SystemUsers(uid_t last = kDefaultLast) : last_(last) {}

  // SYS_UID_MAX of the file, else UID_MIN - 1, else the default, also when there is no such file.
  static SystemUsers read(const std::string& path = kDefaultPath);

  // Whether this is root or a system user. The user "nobody" is neither.
  bool includes(uid_t user) const { return user <= last_; }

  // The number of a user with this name; absent when there is none. Asks the name service, which
  // may wait for a network: only for the start and for configuration that is read.
  static std::optional<uid_t> numberOf(const std::string& name);

 private:
  static constexpr uid_t kDefaultLast = 999;

  uid_t last_;
};

}  // namespace ostravel::linuxplatform
