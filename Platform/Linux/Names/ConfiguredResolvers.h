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

// The resolvers that root has configured for this machine in resolv.conf(5), and the users of those
// that listen on a loopback address, and of systemd-resolved: they send queries on behalf of all
// applications. Reread when the file has changed. Used by one thread at a time, which may wait for
// the disk.
class ConfiguredResolvers {
 public:
  static constexpr const char* kDefaultPath = "/etc/resolv.conf";

  explicit ConfiguredResolvers(std::string path = kDefaultPath);

  // Checks for changes, at most once a second.
  void refresh(BootClock::time_point now);

  // As last read.
  const std::vector<SocketEndpoint>& servers() const { return servers_; }
  // True for the address of a resolver, whatever its port.
  bool includes(const SocketEndpoint& server) const;
  // True for a system user who runs a resolver on this machine. Never true for root and nobody, who
  // also run other programs.
  bool isResolver(uid_t user) const;

 private:
  void read();
  void findUsers();

  const std::string path_;
  const SystemUsers systemUsers_;
  std::optional<BootClock::time_point> lastLook_;
  // Device, inode and time of last change of the file that was read.
  std::vector<std::int64_t> version_;
  std::vector<SocketEndpoint> servers_;
  std::vector<uid_t> users_;
};

}  // namespace ostravel::linuxplatform
