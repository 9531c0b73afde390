#pragma once

#include "Platform/Interface/Error.h"

namespace ostravel::linuxplatform {

// Restricts the system calls that threads of this process may make from now on (seccomp(2)). None
// of this can be undone. A call that is not permitted has one of two results:
//
//   what no part of it does  ends the process (SIGSYS), because somebody else is in control
//   anything else            fails with ENOSYS, as on a kernel without it, so that a library falls
//                            back to an older call
//
// Ending the process is safe: the kernel removes its rules, and connections go direct.
class SystemCallFilter {
 public:
  // For all threads of the process: permits the calls that the extension and its libraries use.
  // Files can only be opened for reading, and only sockets can be created and removed. New threads
  // are permitted, new processes are not. Executing a program, tracing a process, mounts,
  // namespaces, modules and keys end the process.
  //
  // A filter cannot read the flags of openat2(2), which is used for looking up programs.
  static platform::OptionalError install();

  // In addition for the calling thread, which carries connections: listening ends the process, and
  // no file can be opened or looked up, nor a name removed.
  static platform::OptionalError restrictRelay();
  // The same for threads that inspect processes as well: they may open files.
  static platform::OptionalError restrictInspectingRelay();

  // For all threads of the inspector: files can only be opened for reading, and nothing can be
  // connected or listened to. What ends the extension ends it too.
  static platform::OptionalError restrictInspector();

  // For the calling process, which has one thread: it watches the extension, may end it, and may
  // talk to the kernel by netlink.
  static platform::OptionalError restrictGuardian();
};

}  // namespace ostravel::linuxplatform
