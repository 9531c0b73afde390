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

// Finds out which file a path leads to, without ever waiting for a file system that does not answer
// (a network server that is gone, a FUSE program that hangs). The path of a program that runs is
// nearly always in the kernel's cache, from which it is answered in microseconds. Otherwise a
// thread asks the file system, and the answer is waited for kPatience at most.
//
// Each user has one such thread at a time, so that a file system that hangs takes nothing from
// other users than that short wait, which is charged to the user. Used by one thread.
class FileLookup {
 public:
  struct Answer {
    // Not so when it did not come in time; a later question may be answered.
    bool isKnown = false;
    // Absent when there is no such file, or we may not see it.
    std::optional<FileIdentity> file;
  };

  // What a local disk or a server near by needs, and few people notice once.
  static constexpr std::chrono::milliseconds kPatience{10};
  // An answer that came too late is good for the next question, which follows soon when an
  // application tries again.
  static constexpr std::chrono::seconds kLateAnswerLife{1};
  // Threads that wait for file systems, of as many users.
  static constexpr std::size_t kMaximumThreads = 16;

  // The allowance outlives this.
  explicit FileLookup(SearchAllowance& allowance);

  // The file at this absolute path in our own view of the file system; a symbolic link at its end
  // is not followed. The user is the one that has chosen the path.
  Answer at(const std::string& path, uid_t user);

  // The file that the process runs, wherever it is.
  Answer executableOf(pid_t pid, uid_t user);

  // Another number whenever paths may lead somewhere else because something was mounted.
  std::uint64_t generation() { return mounts_.generation(); }

 private:
  struct Question;
  using Search = std::function<std::optional<FileIdentity>()>;

  Answer askInThread(const std::string& what, uid_t user, Search search);
  // Whether there is room for one thread more.
  bool makeRoom();

  SearchAllowance& allowance_;
  MountTable mounts_;
  // The one of each user that was not answered in time.
  std::unordered_map<uid_t, std::shared_ptr<Question>> questions_;
};

}  // namespace ostravel::linuxplatform
