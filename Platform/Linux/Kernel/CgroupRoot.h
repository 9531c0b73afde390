#pragma once

#include <optional>
#include <string>

#include "Base/FileDescriptor.h"
#include "Platform/Interface/Result.h"

namespace ostravel::linuxplatform {

// The mount point of the unified control groups (cgroups(7), version 2), according to a file in the
// format of /proc/self/mounts; empty if they are not mounted.
std::optional<std::string> findCgroupRoot(const std::string& mountsFile);

// Opens the folder of the root control group, mounting it privately if it is not mounted. Fails if
// the kernel has no unified control groups or denies access to them.
platform::Result<FileDescriptor> openCgroupRoot();

}  // namespace ostravel::linuxplatform
