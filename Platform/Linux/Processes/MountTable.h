#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include "Base/FileDescriptor.h"

namespace ostravel::linuxplatform {

// What is mounted in this process's view of the file system (proc_pid_mountinfo(5)). Used by one
// thread.
class MountTable {
 public:
  // Device numbers of file systems by the number of the mount.
  using Devices = std::unordered_map<std::uint64_t, dev_t>;

  MountTable();

  // Another number whenever something was mounted, moved or unmounted.
  std::uint64_t generation();

  // As the last generation() left it, which it does not call.
  std::optional<dev_t> deviceOf(std::uint64_t mount);

  // All mounts that a file in the format of mountinfo names.
  static Devices read(const std::string& path);

 private:
  // Becomes ready when there is a change.
  const FileDescriptor changes_;
  std::uint64_t generation_ = 1;
  // The generation that devices_ is of; 0 when it was not read yet.
  std::uint64_t readGeneration_ = 0;
  Devices devices_;
};

}  // namespace ostravel::linuxplatform
