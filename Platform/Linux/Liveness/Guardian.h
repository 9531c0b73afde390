#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

#include "Platform/Interface/Error.h"
#include "Platform/Interface/Result.h"
#include "Platform/Linux/Liveness/HeartbeatRecord.h"

namespace ostravel::linuxplatform {

// A second, tiny process that kills the extension when it hangs: the kernel then removes the rules
// and drops the packets that were held, and the applications' TCP sends them again. Nothing inside
// a process can do that for it when the process is stopped or its control group is frozen.
//
// The guardian is a child of the extension and ends at once when the extension does, however that
// happens. It has a session of its own and ignores the signals that ask processes to end, so that
// what is meant for the extension does not take its guardian away first. It moves to the root of
// the control groups, if it may, so that freezing the extension's group leaves the guardian
// running; where that is not permitted, a frozen group is noticed only after it has thawed. If
// permitted it runs with real-time priority, to be in time on a busy machine.
//
// It holds standard error, the extension's pidfd(2) and the record; no sockets, no other files.
class Guardian {
 public:
  // How long the extension may be without a heartbeat. Nothing is held while it starts, and every
  // step of an orderly end has its own two seconds, of which waiting for the last events may take
  // one quarter.
  static constexpr std::chrono::seconds kStartLimit{30};
  static constexpr std::chrono::seconds kRunLimit{1};
  static constexpr std::chrono::seconds kStopLimit{2};

  // Forks. Called once, by the process that is to be guarded, before it has a second thread and
  // before it takes much memory, of which the guardian keeps a copy. The record outlives both.
  static platform::Result<Guardian> start(const HeartbeatRecord& record);

  // Whether the guardian has ended, which it never does by itself. True once. Cheap; to be asked
  // after SIGCHLD.
  bool hasEnded();

  pid_t process() const { return process_; }

  // Why an extension was killed, as a clause. wholeProcess: nothing in it ran, not even the
  // heartbeat itself.
  enum class Extent { wholeProcess, participants };
  static std::string reason(const HeartbeatRecord& record, Extent extent);

 private:
  explicit Guardian(pid_t process) : process_(process) {}

  pid_t process_;
};

}  // namespace ostravel::linuxplatform
