#pragma once

#include <sys/types.h>

namespace ostravel::linuxplatform {

// Identifies a file independently of its path, by the kernel's own device and inode numbers. Some
// file systems (overlayfs, Btrfs) report other numbers to stat(2), so the two must not be compared.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;

  friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

}  // namespace ostravel::linuxplatform
