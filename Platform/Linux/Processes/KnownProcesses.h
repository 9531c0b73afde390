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

// A process that has sent packets before, and the cached knowledge about it.
struct KnownProcess {
  Process process;
  // The executable's place before its last examination, as in PublishedConnect; 0 if unknown.
  std::uint64_t place = 0;
  // The control group in which its last socket was created, as the kernel numbers it; 0 if unknown.
  std::uint64_t socketGroup = 0;
  // The identifier if the owner of the socket is identifiedUser; empty if not yet determined.
  std::optional<std::string> identifier;
  uid_t identifiedUser = 0;
  // The last listener of the proxy that this process was compared with, and the result.
  std::uint64_t comparedListener = 0;
  bool isProxy = false;
  // The count of the listener's changes for which its sockets are marked; empty if they are not
  // marked.
  std::optional<std::uint64_t> marked;
};

// Cache of the processes that have sent recently. When it is full, the least recently used entry is
// dropped; refilling it is cheap. Used by one thread.
class KnownProcesses {
 public:
  // More processes than send anything within a few seconds on any reasonable machine; a few
  // megabytes.
  static constexpr std::size_t kDefaultCapacity = 4096;

  explicit KnownProcesses(std::size_t capacity = kDefaultCapacity) : capacity_(capacity) {}

  // Null if unknown. The result is valid until the next insert or erase.
  KnownProcess* find(pid_t pid);
  // Replaces any entry with the same process number.
  KnownProcess& insert(Process process);
  void erase(pid_t pid);
  std::size_t size() const { return processes_.size(); }
  // Clears all identifiers, so that they are determined again.
  void forgetIdentifiers();

 private:
  const std::size_t capacity_;
  // Most recently used first.
  std::list<KnownProcess> processes_;
  std::unordered_map<pid_t, std::list<KnownProcess>::iterator> positions_;
};

}  // namespace ostravel::linuxplatform
