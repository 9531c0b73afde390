#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>

namespace ostravel::linuxplatform {

// What the process on the other end of a local socket may do, judged by the credentials that the
// kernel recorded when it connected (unix(7), SO_PEERCRED, SO_PEERGROUPS).
struct PeerAccess {
  enum class Level : std::uint8_t {
    none,
    // Ask about everything: a member of the group.
    read,
    // Change something as well: root, and the user who runs this process.
    full,
  };

  uid_t user = 0;
  Level level = Level::none;

  // group: whose members may ask; none if there is no such group.
  static PeerAccess of(int socket, std::optional<gid_t> group);
};

}  // namespace ostravel::linuxplatform
