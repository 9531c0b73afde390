#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace ostravel {

// Who may connect to a local socket: those whom the mode permits to write (unix(7)).
struct SocketAccess {
  std::optional<gid_t> group;  // none: the group of the process
  mode_t mode = 0600;
};

// A group of group(5), or its number.
std::optional<gid_t> groupNamed(const std::string& name);

// Octal digits, as chmod(1) takes them, up to 777.
std::optional<mode_t> parseMode(const std::string& text);

// From the options; the text of one that was not given is empty. For a group that exists the mode
// is 0660 unless said otherwise; one that does not exist gives no group any access. Empty when
// `mode` is none.
std::optional<SocketAccess> socketAccess(const std::string& group, const std::string& mode);

}  // namespace ostravel
