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

// Distinguishes a process from a later one with the same number, and from itself before it executed
// another program or changed its user.
struct ProcessStamp {
  // In clock ticks since boot.
  std::uint64_t startTime = 0;
  // Where the program's stack begins; randomized for every program.
  std::uint64_t stackStart = 0;
  // The effective user.
  uid_t uid = 0;
  // The user who started a program that runs as another user.
  uid_t realUser = 0;

  friend bool operator==(const ProcessStamp&, const ProcessStamp&) = default;
};

struct Process {
  pid_t pid = 0;
  ProcessStamp stamp;
  // Absolute path of the executable, any bytes; empty if it cannot be determined.
  std::string executable;
  std::optional<FileIdentity> executableFile;
  // True if the running file is currently the one at that path in our mount namespace. A process
  // can run another file under that path: in its own mount namespace, through a descriptor from
  // there, or because the file at the path was replaced.
  bool isExecutableGenuine = false;
  // True if the running file was removed from that path or replaced there.
  bool isExecutableDeleted = false;
  // False while a file system has not answered; the members above are incomplete then.
  bool isExecutableSettled = false;
  // Its control group in the unified hierarchy (cgroups(7)); empty if there is none.
  std::string controlGroup;
  // The control group of its systemd service; empty outside of services.
  std::string serviceGroup;

  // The basis of the members above: /proc/PID/exe and the mounts at that time.
  std::string executableLink;
  std::uint64_t mountGeneration = 0;
};

// The processes of this machine, read from /proc (proc(5)). Reads only files that never block on a
// file system or on the process: not cmdline, environ or maps. Used by one thread.
class ProcessTable {
 public:
  // allowance: charged with work that delays other flows.
  explicit ProcessTable(
      std::shared_ptr<SearchAllowance> allowance = std::make_shared<SearchAllowance>());

  // Both are empty if there is no such process or it has just ended.
  std::optional<ProcessStamp> stampOf(pid_t pid) const;
  // executable: the file that the process runs, or ran at the time in question, as the kernel
  // recorded it; looked up if empty.
  std::optional<Process> find(pid_t pid,
                              std::optional<FileIdentity> executable = std::nullopt) const;
  // Rechecks whether the executable is still the file at its path, which may change while the stamp
  // stays the same. Cheap if nothing has changed; returns true if something has.
  bool refreshExecutable(Process& process,
                         std::optional<FileIdentity> executable = std::nullopt) const;

  // Rereads the control groups, which change if the process is moved; returns true if they have
  // changed.
  bool refreshControlGroup(Process& process) const;

  // The path of the process's working folder, if that is this one in our mount namespace; empty
  // also if the file system does not answer in time.
  std::optional<std::string> workingFolderOf(const Process& process,
                                             const FileIdentity& expected) const;

  // A process that holds the socket with this inode; candidate is checked first, then user's
  // processes. Empty also if none was found within kHolderBudget. Charges the allowance without
  // checking it.
  std::optional<pid_t> holderOf(std::uint32_t inode, uid_t user,
                                std::optional<pid_t> candidate = std::nullopt);

  // The shared limit on the cost of process searches.
  SearchAllowance& allowance() const { return *allowance_; }

  // True if the process holds the socket among its first descriptors, where inherited ones are.
  bool hasInherited(pid_t pid, std::uint32_t inode) const;

  // A third of the delay of a held first packet that users do not notice, and the corresponding
  // time on a machine that gives us a fifth of a core.
  static constexpr std::chrono::milliseconds kHolderBudget{5};
  static constexpr std::chrono::milliseconds kLongestHolderSearch{25};

 private:
  void rememberHolder(pid_t pid);
  static void setControlGroup(Process& process, std::string group);
  void readExecutable(Process& process, std::optional<FileIdentity> executable) const;

  const std::shared_ptr<SearchAllowance> allowance_;
  const std::unique_ptr<FileLookup> files_;
  // The holders found last, latest first; checked before all others.
  std::deque<pid_t> recentHolders_;
};

// The part of a control group's path up to the systemd service; empty if it belongs to none, or
// only to the manager of a user's session.
std::string_view serviceGroupOf(std::string_view controlGroup);

}  // namespace ostravel::linuxplatform
