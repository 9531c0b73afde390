#pragma once

#include <sys/types.h>

namespace ostravel::linuxplatform {

// A file, whatever it is called and wherever it is seen, in the kernel's own terms: the device
// number of its file system and the number of its inode there. Some file systems (overlayfs, Btrfs)
// show others to stat(2), so that the two must not be compared.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;

  friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

}  // namespace ostravel::linuxplatform
