#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "Platform/Linux/Processes/FileIdentity.h"
#include "Platform/Linux/Processes/MountTable.h"
#include "Platform/Linux/Processes/SearchAllowance.h"

namespace ostravel::linuxplatform {

// Finds the file at a path without ever blocking on a file system that does not respond (an
// unreachable network server, a hung FUSE program). The path of a running program is nearly always
// in the kernel's cache, which answers in microseconds. Otherwise a thread asks the file system,
// and the caller waits for at most kPatience.
//
// There is one such thread per user at a time, so that a hung file system costs other users no more
// than that short wait, which is charged to the user. Used by one thread.
class FileLookup {
 public:
  struct Answer {
    // False if there was no answer in time; a later question may be answered.
    bool isKnown = false;
    // Empty if there is no such file or we may not see it.
    std::optional<FileIdentity> file;
  };

  // Enough for a local disk or a nearby server, and a delay that few users notice once.
  static constexpr std::chrono::milliseconds kPatience{10};
  // A late answer is kept for the next question, which follows soon if an application retries.
  static constexpr std::chrono::seconds kLateAnswerLife{1};
  // Limit on threads that wait for file systems, each for a different user.
  static constexpr std::size_t kMaximumThreads = 16;

  // The allowance outlives this object.
  explicit FileLookup(SearchAllowance& allowance);

  // The file at this absolute path in our own mount namespace; a symbolic link in the last
  // component is not followed. user: chose the path, and is charged.
  Answer at(const std::string& path, uid_t user);

  // The file that the process is running, wherever it is.
  Answer executableOf(pid_t pid, uid_t user);

  // Changes whenever a mount may have changed where paths lead.
  std::uint64_t generation() { return mounts_.generation(); }

 private:
  struct Question;
  using Search = std::function<std::optional<FileIdentity>()>;

  Answer askInThread(const std::string& what, uid_t user, Search search);
  // True if one more thread may be started.
  bool makeRoom();

  SearchAllowance& allowance_;
  MountTable mounts_;
  // Each user's question that has not been answered in time.
  std::unordered_map<uid_t, std::shared_ptr<Question>> questions_;
};

}  // namespace ostravel::linuxplatform
