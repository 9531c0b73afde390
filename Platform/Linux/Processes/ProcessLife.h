#pragma once

#include <sys/types.h>

#include <cstdint>

namespace ostravel::linuxplatform {

// Names a process, to ask later whether it lives on. A value; usable from any thread.
class ProcessLife {
 public:
  // startTime: in clock ticks since the machine started, which tells it from a later process with
  // the same number.
  ProcessLife(pid_t pid, std::uint64_t startTime) : pid_(pid), startTime_(startTime) {}

  // Also true while it is ending: the kernel closes the descriptors of a process that was killed
  // one after the other, so that their peers learn of it while others are still open.
  bool hasEnded() const;

 private:
  pid_t pid_;
  std::uint64_t startTime_;
};

}  // namespace ostravel::linuxplatform
