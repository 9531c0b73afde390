#pragma once

#include "Platform/Interface/Error.h"

namespace ostravel::linuxplatform {

// The system calls that this process may make from now on, in all of its threads (seccomp(2)): a
// list of those that the extension and its libraries use. It cannot be undone.
//
//   on the list              permitted; a new process is not, only a new thread
//   what no part of it does  ends the process (SIGSYS), because somebody else is in control:
//   running
//                            a program, tracing a process, mounts, namespaces, modules, keys
//   anything else            fails with ENOSYS, as on a kernel without it, so that a library falls
//                            back to an older call
//
// The end of the process is safe: its rules go with it, and connections go direct.
class SystemCallFilter {
 public:
  static platform::OptionalError install();
};

}  // namespace ostravel::linuxplatform
