#include "Base/SocketAccess.h"

#include <grp.h>
#include <sys/stat.h>

#include "Base/ParseNumber.h"

namespace ostravel {
std::optional<gid_t> groupNamed(const std::string& name) {
  if (const group* const found = ::getgrnam(name.c_str())) {
    return found->gr_gid;
  }
  const std::optional<gid_t> number = parseNumber<gid_t>(name);
  // The largest number means "unchanged" to chown(2).
  return number == static_cast<gid_t>(-1) ? std::nullopt : number;
}

std::optional<mode_t> parseMode(const std::string& text) {
  constexpr mode_t kLargest = 0777;
  const std::optional<mode_t> mode = parseNumber<mode_t>(text, 8);
  return mode && *mode <= kLargest ? mode : std::nullopt;
}

std::optional<SocketAccess> socketAccess(const std::string& group, const std::string& mode) {
  SocketAccess access;
  if (!group.empty()) {
    access.group = groupNamed(group);
  }
  if (access.group) {
    access.mode = 0660;
  }
  if (!mode.empty()) {
    const std::optional<mode_t> chosen = parseMode(mode);
    if (!chosen) {
      return std::nullopt;
    }
    // The mode is meant for a group that does not exist, and must not apply to the socket's own.
    const bool isGroupMissing = !group.empty() && !access.group;
    access.mode = isGroupMissing ? *chosen & ~static_cast<mode_t>(S_IRWXG) : *chosen;
  }
  return access;
}

}  // namespace ostravel
