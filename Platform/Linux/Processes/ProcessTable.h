#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Linux/Processes/FileIdentity.h"
#include "Platform/Linux/Processes/ProcessLife.h"
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
  // True if the running file is currently the one at that path in the table's mount namespace. A
  // process can run another file under that path: in its own mount namespace, through a descriptor
  // from there, or because the file at the path was replaced.
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

  friend bool operator==(const Process&, const Process&) = default;
};

// What most processes of the machine see: the root folder and the mount namespace of the first
// process.
struct CommonView {
  FileIdentity root;
  ino_t mountNamespace = 0;
};

// A search for the process that holds the socket with this inode.
struct HolderSearch {
  // Distinguishes searches of one table.
  std::uint64_t number = 0;
  std::uint32_t inode = 0;
  // Scanned before all others, then those of preferredUser.
  std::vector<pid_t> first;
  std::optional<uid_t> preferredUser;

  friend bool operator==(const HolderSearch&, const HolderSearch&) = default;
};

struct HolderSearchStep {
  enum class Result : std::uint8_t { found, absent, unfinished };

  Result result = Result::unfinished;
  // Valid if it was found.
  pid_t holder = 0;
};

// The processes of this machine. LocalProcessTable reads /proc itself; RemoteProcessTable asks
// another program, which has the permissions for it. A question that is not answered has the same
// result as one about a process that does not exist, unless stated otherwise. Used by one thread.
class ProcessTable {
 public:
  explicit ProcessTable(std::shared_ptr<SearchAllowance> allowance)
      : allowance_(std::move(allowance)) {}
  ProcessTable(const ProcessTable&) = delete;
  ProcessTable& operator=(const ProcessTable&) = delete;
  virtual ~ProcessTable() = default;

  // The last question was answered. If not, the result must not be kept.
  virtual bool isAnswering() const { return true; }

  // Both are empty if there is no such process or it has just ended.
  virtual std::optional<ProcessStamp> stampOf(pid_t pid) const = 0;
  // executable: the file that the process runs, or ran at the time in question, as the kernel
  // recorded it; looked up if empty.
  virtual std::optional<Process> find(pid_t pid, std::optional<FileIdentity> executable) const = 0;
  std::optional<Process> find(pid_t pid) const { return find(pid, std::nullopt); }
  // Rechecks whether the executable is still the file at its path, which may change while the stamp
  // stays the same. Cheap if nothing has changed; returns true if something has.
  virtual bool refreshExecutable(Process& process,
                                 std::optional<FileIdentity> executable) const = 0;
  bool refreshExecutable(Process& process) const {
    return refreshExecutable(process, std::nullopt);
  }

  // Rereads the control groups, which change if the process is moved; returns true if they have
  // changed.
  virtual bool refreshControlGroup(Process& process) const = 0;

  // The path of the process's working folder, if that is this one in the table's mount namespace;
  // empty also if the file system does not answer in time.
  virtual std::optional<std::string> workingFolderOf(const Process& process,
                                                     const FileIdentity& expected) const = 0;

  // See AppImage.
  virtual std::optional<std::string> appImageOf(const Process& process) const = 0;

  // Tells from now on whether this process has ended; empty if it already has.
  virtual std::optional<ProcessLife> lifeOf(const Process& process) const = 0;

  // A process that holds the socket with this inode; candidate is checked first, then user's
  // processes. Empty also if none was found within kHolderBudget. Charges the allowance without
  // checking it.
  virtual std::optional<pid_t> holderOf(std::uint32_t inode, uid_t user,
                                        std::optional<pid_t> candidate) = 0;
  std::optional<pid_t> holderOf(std::uint32_t inode, uid_t user) {
    return holderOf(inode, user, std::nullopt);
  }

  // Continues the search, or begins it, until it ends or has used that running time (work) or time
  // by the clock (longest). preferred: a process to scan next, unless it was scanned already.
  // Charges the search's preferred user, or the reserve, without checking the allowance.
  virtual HolderSearchStep proceed(const HolderSearch& search, std::optional<pid_t> preferred,
                                   std::chrono::milliseconds work,
                                   std::chrono::milliseconds longest) = 0;

  // True if the process holds the socket among its first descriptors, where inherited ones are;
  // empty if that is not known.
  virtual std::optional<bool> hasInherited(pid_t pid, std::uint32_t inode) const = 0;

  // Empty if it cannot be determined.
  virtual std::optional<CommonView> commonView() const = 0;

  // See RegisteredPaths, which determines what is returned, also for a question that is not
  // answered.
  virtual std::vector<std::optional<std::string>> problemsWith(
      const std::vector<std::string>& paths) const = 0;

  // The shared limit on the cost of process searches.
  SearchAllowance& allowance() const { return *allowance_; }

  // A third of the delay of a held first packet that users do not notice, and the corresponding
  // time on a machine that gives us a fifth of a core.
  static constexpr std::chrono::milliseconds kHolderBudget{5};
  static constexpr std::chrono::milliseconds kLongestHolderSearch{25};

 private:
  const std::shared_ptr<SearchAllowance> allowance_;
};

// Makes a table for the calling thread, with an allowance of its own. Usable from any thread.
using ProcessTableSource = std::function<std::unique_ptr<ProcessTable>()>;

}  // namespace ostravel::linuxplatform
