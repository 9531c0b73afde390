#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>

namespace ostravel::linuxplatform {

// The permissions of a local socket's peer, according to the credentials that the kernel recorded
// when it connected (unix(7), SO_PEERCRED, SO_PEERGROUPS).
struct PeerAccess {
  enum class Level : std::uint8_t {
    none,
    // May read everything: a member of the group.
    read,
    // May also change things: root, and the user who runs this process.
    full,
  };

  uid_t user = 0;
  Level level = Level::none;

  // group: its members may read; empty if there is no such group.
  static PeerAccess of(int socket, std::optional<gid_t> group);
};

}  // namespace ostravel::linuxplatform
