#pragma once

#include <sys/types.h>

#include <cstdint>

namespace ostravel::linuxplatform {

// Refers to a process, to find out later whether it is still alive. A value type; usable from any
// thread.
class ProcessLife {
 public:
  // startTime: in clock ticks since boot; distinguishes it from a later process with the same
  // number.
  ProcessLife(pid_t pid, std::uint64_t startTime) : pid_(pid), startTime_(startTime) {}

  // True even while the process is exiting: the kernel closes the descriptors of a killed process
  // one by one, so some peers notice while other descriptors are still open.
  bool hasEnded() const;

 private:
  pid_t pid_;
  std::uint64_t startTime_;
};

}  // namespace ostravel::linuxplatform
