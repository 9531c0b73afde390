#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace ostravel {

// The users who may connect to a local socket: those whom the mode permits to write (unix(7)).
struct SocketAccess {
  std::optional<gid_t> group;  // none: the group of the process
  mode_t mode = 0600;
};

// The ID of a group of group(5), or of the number that the text is.
std::optional<gid_t> groupNamed(const std::string& name);

// Octal digits as for chmod(1), up to 777.
std::optional<mode_t> parseMode(const std::string& text);

// Converts the options; a missing option is an empty text. For an existing group the default mode
// is 0660; a missing group has no access. Empty if `mode` is invalid.
std::optional<SocketAccess> socketAccess(const std::string& group, const std::string& mode);

}  // namespace ostravel
