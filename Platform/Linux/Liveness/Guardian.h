#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>

#include "Platform/Interface/Error.h"
#include "Platform/Interface/Result.h"
#include "Platform/Linux/Liveness/HeartbeatRecord.h"

namespace ostravel::linuxplatform {

// A second, tiny process that kills the extension when it hangs. The kernel then removes the rules
// and drops the held packets, which the applications' TCP retransmits. Nothing inside a process can
// do this while the process is stopped or its control group is frozen.
//
// The guardian is a child of the extension and ends at once when the extension does, for any
// reason. It runs in a separate session and ignores termination signals, so that a signal meant for
// the extension does not end the guardian first. If permitted, it moves to the root control group,
// so that it keeps running when the extension's group is frozen; otherwise a freeze is noticed only
// after the thaw. If permitted, it runs with real-time priority, to react in time on a busy
// machine.
//
// It holds standard error, the extension's pidfd(2), the record and one file of the extension,
// which stays open until the extension has closed all of its own; no other files, except those that
// it opens for cleaning up.
class Guardian {
 public:
  // How long the extension may go without a heartbeat. No packet is held while it starts, and every
  // step of an orderly shutdown may take two seconds, a quarter of which may be spent waiting for
  // the last events.
  static constexpr std::chrono::seconds kStartLimit{30};
  static constexpr std::chrono::seconds kRunLimit{1};
  static constexpr std::chrono::seconds kStopLimit{2};
  // The same for an extension that gets no processor time, at least within the last kRunLimit. New
  // flows are no longer offered then, so only held ones wait; killing it would reset every tunnel,
  // and any user could cause that with enough busy processes.
  static constexpr std::chrono::seconds kStarvedLimit{10};

  using CleanUp = std::function<void()>;

  // Forks. Called once, by the process to be guarded, before it has a second thread and before it
  // allocates much memory, which the guardian would copy. The record outlives both. lastFile: a
  // descriptor that stays the caller's; -1 for none.
  //
  // prepare runs in the guardian once it only needs the permissions to watch, to kill, and for what
  // prepare returns: cleaning up after the extension has ended, for any reason.
  static platform::Result<Guardian> start(
      const HeartbeatRecord& record, int lastFile = -1,
      const std::function<CleanUp()>& prepare = [] { return [] {}; });

  // True, once, if the guardian has ended, which it never does while the extension runs. Cheap;
  // call it after SIGCHLD.
  bool hasEnded();

  pid_t process() const { return process_; }

 private:
  explicit Guardian(pid_t process) : process_(process) {}

  pid_t process_;
};

}  // namespace ostravel::linuxplatform
