#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include "Base/FileDescriptor.h"

namespace ostravel::linuxplatform {

// The mounts in this process's mount namespace (proc_pid_mountinfo(5)). Used by one thread.
class MountTable {
 public:
  // Device numbers of file systems by mount ID.
  using Devices = std::unordered_map<std::uint64_t, dev_t>;

  MountTable();

  // Changes whenever something was mounted, moved or unmounted.
  std::uint64_t generation();

  // As of the last call of generation(), which this does not call.
  std::optional<dev_t> deviceOf(std::uint64_t mount);

  // All mounts listed in a file in the format of mountinfo.
  static Devices read(const std::string& path);

 private:
  // Becomes ready when the mounts change.
  const FileDescriptor changes_;
  // Begins with a number that no earlier table of any process has reached.
  std::uint64_t generation_ =
      static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  // The generation of devices_; 0 if it has not been read yet.
  std::uint64_t readGeneration_ = 0;
  Devices devices_;
};

}  // namespace ostravel::linuxplatform
