#include "Platform/Linux/Kernel/CgroupRoot.h"

#include <fcntl.h>
#include <mntent.h>
#include <sys/mount.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace ostravel::linuxplatform {

namespace {

// Mounts the unified hierarchy without a path, for mount namespaces that hide it: those of
// ip-netns(8) replace /sys, where it is usually mounted. No other process sees this mount; closing
// its last descriptor unmounts it.
FileDescriptor openDetachedCgroupRoot() {
  const FileDescriptor context(::fsopen("cgroup2", FSOPEN_CLOEXEC));
  if (!context.isOpen() ||
      ::fsconfig(context.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) != 0) {
    return FileDescriptor();
  }
  return FileDescriptor(::fsmount(context.get(), FSMOUNT_CLOEXEC, 0));
}

}  // namespace

std::optional<std::string> findCgroupRoot(const std::string& mountsFile) {
  struct Close {
    void operator()(std::FILE* file) const { ::endmntent(file); }
  };
  const std::unique_ptr<std::FILE, Close> mounts(::setmntent(mountsFile.c_str(), "re"));
  if (!mounts) {
    return std::nullopt;
  }
  mntent entry{};
  // Long enough for any relevant line; longer ones are truncated.
  std::array<char, 8192> text;
  while (::getmntent_r(mounts.get(), &entry, text.data(), static_cast<int>(text.size()))) {
    if (std::strcmp(entry.mnt_type, "cgroup2") == 0) {
      return entry.mnt_dir;
    }
  }
  return std::nullopt;
}

platform::Result<FileDescriptor> openCgroupRoot() {
  const auto path = findCgroupRoot("/proc/self/mounts");
  FileDescriptor root =
      path ? FileDescriptor(::open(path->c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
           : openDetachedCgroupRoot();
  if (!root.isOpen()) {
    return platform::systemCallError(errno, "control groups of version 2 cannot be reached");
  }
  return root;
}

}  // namespace ostravel::linuxplatform
