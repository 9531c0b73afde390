#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "Platform/Linux/Processes/ProcessTable.h"

namespace ostravel::linuxplatform {

// The name of the AppImage that the process runs from, such as "Editor-2.1.AppImage"; empty if it
// runs from none. An AppImage is a file system in user space that its user has mounted, and not
// even root can open its files. The name is therefore the source of the mount, which its user has
// chosen. Never accesses a file system. Bounded: finds nothing in mount namespaces with thousands
// of mounts.
std::optional<std::string> appImageOf(const Process& process);

// False if it certainly runs from none, by the path of its executable.
bool mayBeAppImage(const Process& process);

// The same, given a file in the format of proc_pid_mountinfo(5).
std::optional<std::string> appImageIn(const std::string& mountsFile, dev_t device, uid_t user);

}  // namespace ostravel::linuxplatform
