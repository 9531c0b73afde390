#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

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

  friend bool operator==(const ProcessStamp&, const ProcessStamp&) = default;
};

// A file, whatever it is called and wherever it is seen.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;

  friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

struct Process {
  pid_t pid = 0;
  ProcessStamp stamp;
  // Absolute path of the program, valid UTF-8; empty when it cannot be told.
  std::string executable;
  std::optional<FileIdentity> executableFile;
  // Whether that path leads to the same file for everybody. A process can mount what it likes where
  // it likes in a file system view of its own.
  bool isExecutableGenuine = false;
  // The control group of the systemd service that it belongs to; empty outside of services.
  std::string serviceGroup;
};

// The processes of this machine, read from /proc (proc(5)). Used by one thread at a time; keeps
// nothing but which processes were found to hold sockets.
class ProcessTable {
 public:
  // All are absent when there is no such process, or it has just ended.
  std::optional<ProcessStamp> stampOf(pid_t pid) const;
  std::optional<Process> find(pid_t pid) const;

  // Some process that holds the socket with this inode, user's processes first; absent also when it
  // was not found within kHolderBudget.
  std::optional<pid_t> holderOf(std::uint32_t inode, uid_t user);

  // Whether the process holds the socket as one of its first descriptors, where what was handed to
  // it at its start is.
  bool hasInherited(pid_t pid, std::uint32_t inode) const;

  // A third of what a held first packet may wait without anybody noticing, and what that comes to
  // on a machine that gives us a fifth of a core.
  static constexpr std::chrono::milliseconds kHolderBudget{5};
  static constexpr std::chrono::milliseconds kLongestHolderSearch{25};

 private:
  void rememberHolder(pid_t pid);

  // Those that were found last, latest first; they are asked first.
  std::deque<pid_t> recentHolders_;
};

// The part of a control group's path up to the systemd service that it belongs to; empty when it
// belongs to none, or only to the manager of a user's session.
std::string_view serviceGroupOf(std::string_view controlGroup);

}  // namespace ostravel::linuxplatform
