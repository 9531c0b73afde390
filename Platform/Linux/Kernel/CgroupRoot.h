#pragma once

#include <optional>
#include <string>

#include "Base/FileDescriptor.h"

namespace ostravel::linuxplatform {

// Where the unified control groups (cgroups(7), version 2) are mounted, according to a file in the
// format of /proc/self/mounts; absent when they are not.
std::optional<std::string> findCgroupRoot(const std::string& mountsFile);

// The folder of the root control group, found or else mounted where nobody sees it; not open, with
// errno set, when there are no unified control groups or they cannot be reached.
FileDescriptor openCgroupRoot();

}  // namespace ostravel::linuxplatform
