#pragma once

#include "Platform/Interface/Error.h"

namespace ostravel::linuxplatform {

// Restricts the system calls that threads of this process may make from now on (seccomp(2)). None
// of this can be undone. What is not permitted has one of two ends:
//
//   what no part of it does  ends the process (SIGSYS), because somebody else is in control
//   anything else            fails with ENOSYS, as on a kernel without it, so that a library falls
//                            back to an older call
//
// Ending the process is safe: the kernel removes its rules, and connections go direct.
class SystemCallFilter {
 public:
  // All threads of the process: what the extension and its libraries use. Files can only be opened
  // for reading, and of all names only sockets are made and removed. There are new threads, but no
  // new processes. Running a program, tracing a process, mounts, namespaces, modules and keys are
  // deadly.
  //
  // The flags of openat2(2) cannot be looked at; it is for looking up programs.
  static platform::OptionalError install();

  // The calling thread, besides: it carries connections, and neither listens, which is deadly, nor
  // removes a name.
  static platform::OptionalError restrictRelay();

  // The calling process, which has one thread: it watches the extension, and may end it.
  static platform::OptionalError restrictGuardian();
};

}  // namespace ostravel::linuxplatform
