#pragma once

#include "Platform/Interface/Error.h"

namespace ostravel::linuxplatform {

// Restricts the system calls of this process, in all of its threads (seccomp(2)), to a list of
// those that the extension and its libraries use. It cannot be undone.
//
//   on the list              permitted; a new process is not, only a new thread
//   what no part of it does  ends the process (SIGSYS), because somebody else is in control:
//   running
//                            a program, tracing a process, mounts, namespaces, modules, keys
//   anything else            fails with ENOSYS, as on a kernel without it, so that a library falls
//                            back to an older call
//
// Ending the process is safe: the kernel removes its rules, and connections go direct.
class SystemCallFilter {
 public:
  static platform::OptionalError install();
};

}  // namespace ostravel::linuxplatform
