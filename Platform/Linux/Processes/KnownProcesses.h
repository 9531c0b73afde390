#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <unordered_map>

#include "Platform/Linux/Processes/ProcessTable.h"

namespace ostravel::linuxplatform {

// A process that has sent before, and what was found out about it.
struct KnownProcess {
  Process process;
  // What it is called when the owner of its socket is identifiedUser; absent when that has to be
  // found out.
  std::optional<std::string> identifier;
  uid_t identifiedUser = 0;
  // The last listener of the proxy that this process was compared with, and the result.
  std::uint64_t comparedListener = 0;
  bool isProxy = false;
};

// The processes that have sent lately. When there are too many, the one that has not sent for the
// longest time is dropped: it is found again when it sends. Used by one thread.
class KnownProcesses {
 public:
  // More than send anything within a few seconds on all but absurd machines; some megabytes.
  static constexpr std::size_t kDefaultCapacity = 4096;

  explicit KnownProcesses(std::size_t capacity = kDefaultCapacity) : capacity_(capacity) {}

  // Null when it is not known. What is returned is valid until the next insert or erase.
  KnownProcess* find(pid_t pid);
  // In place of what was known by that number.
  KnownProcess& insert(Process process);
  void erase(pid_t pid);
  // All identifiers have to be found out again.
  void forgetIdentifiers();

 private:
  const std::size_t capacity_;
  // The one that has sent last comes first.
  std::list<KnownProcess> processes_;
  std::unordered_map<pid_t, std::list<KnownProcess>::iterator> positions_;
};

}  // namespace ostravel::linuxplatform
