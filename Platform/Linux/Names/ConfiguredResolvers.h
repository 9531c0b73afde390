#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Names/BootClock.h"
#include "Platform/Linux/Processes/SystemUsers.h"

namespace ostravel::linuxplatform {

// The resolvers that root has configured for this machine, as resolv.conf(5) lists them, and the
// users as which those run that listen on a loopback address: what they ask others, they ask for
// everybody. Read again when the file has changed. Used by one thread at a time, which may wait for
// the disk.
class ConfiguredResolvers {
 public:
  static constexpr const char* kDefaultPath = "/etc/resolv.conf";

  explicit ConfiguredResolvers(std::string path = kDefaultPath);

  // Looks whether anything has changed, at most once a second.
  void refresh(BootClock::time_point now);

  // True for the address of a resolver, whatever its port.
  bool includes(const SocketEndpoint& server) const;
  // True for a system user that a resolver on this machine runs as. Root and nobody never count:
  // they run much else.
  bool isResolver(uid_t user) const;

 private:
  void read();
  void findUsers();

  const std::string path_;
  const SystemUsers systemUsers_;
  std::optional<BootClock::time_point> lastLook_;
  // Of the file that was read: device, inode and time of its last change.
  std::vector<std::int64_t> version_;
  std::vector<SocketEndpoint> servers_;
  std::vector<uid_t> users_;
};

}  // namespace ostravel::linuxplatform
