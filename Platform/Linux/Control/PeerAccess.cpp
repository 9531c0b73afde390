#include "Platform/Linux/Control/PeerAccess.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "Platform/Linux/Kernel/SocketOption.h"

namespace ostravel::linuxplatform {

namespace {

// More groups than any login has; a user with even more cannot be recognised as a member.
constexpr std::size_t kMostGroups = 1024;

bool isAmongGroups(int socket, gid_t group) {
  std::vector<gid_t> groups(kMostGroups);
  auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0) {
    return false;
  }
  groups.resize(std::min(groups.size(), size / sizeof(gid_t)));
  return std::ranges::find(groups, group) != groups.end();
}

}  // namespace

PeerAccess PeerAccess::of(int socket, std::optional<gid_t> group) {
  const auto peer = socketOption<ucred>(socket, SOL_SOCKET, SO_PEERCRED);
  if (!peer) {
    return {.user = static_cast<uid_t>(-1), .level = Level::none};
  }
  if (peer->uid == 0 || peer->uid == ::geteuid()) {
    return {.user = peer->uid, .level = Level::full};
  }
  const bool isMember = group && (peer->gid == *group || isAmongGroups(socket, *group));
  return {.user = peer->uid, .level = isMember ? Level::read : Level::none};
}

}  // namespace ostravel::linuxplatform
