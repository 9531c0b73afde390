#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "Platform/Linux/Processes/ProcessTable.h"
#include "Platform/Linux/Processes/SearchBudget.h"

namespace ostravel::linuxplatform {

// Scans the descriptors of all processes for the one that holds a socket, newest processes first,
// in as many steps as the caller's budget requires. Processes may come and go in between; new ones
// are not scanned. Without permission to inspect other users' processes (CAP_SYS_PTRACE), only our
// own are found. Used by one thread at a time.
class SocketHolderSearch {
 public:
  using Result = HolderSearchStep::Result;

  // The processes in first are scanned before all others, then those of preferredUser.
  SocketHolderSearch(std::uint32_t inode, std::vector<pid_t> first,
                     std::optional<uid_t> preferredUser);

  // Scans this process next, unless it was already scanned or preferred. What it interrupts is
  // continued afterwards: a process with many descriptors is scanned to its end, however many
  // others are preferred meanwhile.
  void prefer(pid_t process);

  // Continues until the end or until the budget is used up; examines at least one descriptor.
  Result proceed(const SearchBudget& budget);

  // Valid for a search that has found the holder.
  pid_t holder() const { return processes_[next_]; }

 private:
  struct DirectoryRelease {
    void operator()(DIR* directory) const { ::closedir(directory); }
  };

  void listProcesses();
  void openDescriptors();
  bool isHeldThroughCurrentDescriptor(const dirent& entry) const;

  const std::uint32_t inode_;
  const std::optional<uid_t> preferredUser_;
  std::vector<pid_t> processes_;
  bool hasListedProcesses_ = false;
  std::size_t next_ = 0;
  // The descriptors of the next process, while they are being scanned.
  std::unique_ptr<DIR, DirectoryRelease> descriptors_;
  // Those of the process that a preferred one has interrupted.
  std::unique_ptr<DIR, DirectoryRelease> interruptedDescriptors_;
  pid_t interrupted_ = 0;
};

}  // namespace ostravel::linuxplatform
