#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Linux/Processes/FileIdentity.h"
#include "Platform/Linux/Processes/FileLookup.h"
#include "Platform/Linux/Processes/SearchAllowance.h"

namespace ostravel::linuxplatform {

// Tells a process from a later one with the same number, and from what it was before it started
// another program or changed its user.
struct ProcessStamp {
  // In clock ticks since the machine started.
  std::uint64_t startTime = 0;
  // Where the program's stack begins, which is drawn anew for every program.
  std::uint64_t stackStart = 0;
  // The effective user.
  uid_t uid = 0;
  // Who has started a program that goes on as another user.
  uid_t realUser = 0;

  friend bool operator==(const ProcessStamp&, const ProcessStamp&) = default;
};

struct Process {
  pid_t pid = 0;
  ProcessStamp stamp;
  // Absolute path of the program, any bytes; empty when it cannot be told.
  std::string executable;
  std::optional<FileIdentity> executableFile;
  // Whether the file that runs is the one at that path, for us and now. A process can run another
  // one that seems to be there: from a file system view of its own, through a descriptor that it
  // was handed from there, or because the one at the path was replaced.
  bool isExecutableGenuine = false;
  // Whether the file that runs was removed from that path, or replaced there.
  bool isExecutableDeleted = false;
  // False while a file system has not answered; then the above says less than could be known.
  bool isExecutableSettled = false;
  // The control group of the systemd service that it belongs to; empty outside of services.
  std::string serviceGroup;

  // What the above was found out from: /proc/PID/exe as it was, and what was mounted.
  std::string executableLink;
  std::uint64_t mountGeneration = 0;
};

// The processes of this machine, read from /proc (proc(5)), of which only what never waits for a
// file system or for the process is touched: not cmdline, environ or maps. Used by one thread.
class ProcessTable {
 public:
  // What it finds out at the expense of other work is charged to the allowance.
  explicit ProcessTable(
      std::shared_ptr<SearchAllowance> allowance = std::make_shared<SearchAllowance>());

  // All are absent when there is no such process, or it has just ended.
  std::optional<ProcessStamp> stampOf(pid_t pid) const;
  // executable is what it runs, or ran when it did what it is looked at for, as the kernel has
  // recorded it; found out when there is no such record.
  std::optional<Process> find(pid_t pid,
                              std::optional<FileIdentity> executable = std::nullopt) const;
  // Looks again at what may have changed although the stamp is the same: whether the executable is
  // still the file at its path. Costs little when nothing has changed; returns whether it has.
  bool refreshExecutable(Process& process,
                         std::optional<FileIdentity> executable = std::nullopt) const;

  // Some process that holds the socket with this inode, user's processes first; absent also when it
  // was not found within kHolderBudget.
  // The allowance is not asked, but charged. candidate is looked at before all others.
  std::optional<pid_t> holderOf(std::uint32_t inode, uid_t user,
                                std::optional<pid_t> candidate = std::nullopt);

  // What searches for processes may cost, together.
  SearchAllowance& allowance() const { return *allowance_; }

  // Whether the process holds the socket as one of its first descriptors, where what was handed to
  // it at its start is.
  bool hasInherited(pid_t pid, std::uint32_t inode) const;

  // A third of what a held first packet may wait without anybody noticing, and what that comes to
  // on a machine that gives us a fifth of a core.
  static constexpr std::chrono::milliseconds kHolderBudget{5};
  static constexpr std::chrono::milliseconds kLongestHolderSearch{25};

 private:
  void rememberHolder(pid_t pid);
  void readExecutable(Process& process, std::optional<FileIdentity> executable) const;

  const std::shared_ptr<SearchAllowance> allowance_;
  const std::unique_ptr<FileLookup> files_;
  // Those that were found last, latest first; they are asked first.
  std::deque<pid_t> recentHolders_;
};

// The part of a control group's path up to the systemd service that it belongs to; empty when it
// belongs to none, or only to the manager of a user's session.
std::string_view serviceGroupOf(std::string_view controlGroup);

}  // namespace ostravel::linuxplatform
