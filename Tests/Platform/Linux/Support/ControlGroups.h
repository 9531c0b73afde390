#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string_view>

namespace ostravel::testing {

// Gives this process a new control group, in a control group namespace in which that is the root of
// the hierarchy, and removes the group with all below it on destruction. So tests can make groups
// such as "/system.slice" apart from the machine's. Every process that is moved must have ended
// before that. Fails the test if it is not permitted.
class ControlGroups {
 public:
  ControlGroups();
  ControlGroups(const ControlGroups&) = delete;
  ControlGroups& operator=(const ControlGroups&) = delete;
  ~ControlGroups();

  // group: an absolute path in the namespace; it is made if it does not exist.
  void move(pid_t process, std::string_view group) const;

 private:
  std::filesystem::path outside_;
  std::filesystem::path root_;
};

}  // namespace ostravel::testing
