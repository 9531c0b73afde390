#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "Platform/Linux/Processes/SearchBudget.h"

namespace ostravel::linuxplatform {

// A look through the descriptors of all processes for the one that holds a socket, newest processes
// first, in as many parts as the caller's budget permits. Processes may come and go meanwhile;
// those that come later are not looked at. Without the permission to look into foreign processes
// (CAP_SYS_PTRACE) only own ones are found. Used by one thread at a time.
class SocketHolderSearch {
 public:
  enum class Result { found, absent, unfinished };

  // The processes in first are looked at before all others; preferredUser's come next.
  SocketHolderSearch(std::uint32_t inode, std::vector<pid_t> first,
                     std::optional<uid_t> preferredUser);

  // Looks at this process next, unless it was looked at or named before.
  void prefer(pid_t process);

  // Goes on until the end or until the budget is used up; looks at one descriptor at least.
  Result proceed(const SearchBudget& budget);

  // Of a search that has found it.
  pid_t holder() const { return processes_[next_]; }

 private:
  struct DirectoryRelease {
    void operator()(DIR* directory) const { ::closedir(directory); }
  };

  void listProcesses();
  bool isHeldThroughCurrentDescriptor(const dirent& entry) const;

  const std::uint32_t inode_;
  const std::optional<uid_t> preferredUser_;
  std::vector<pid_t> processes_;
  bool areListed_ = false;
  std::size_t next_ = 0;
  // The descriptors of the next process, while they are being looked at.
  std::unique_ptr<DIR, DirectoryRelease> descriptors_;
};

}  // namespace ostravel::linuxplatform
