#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <utility>

#include "Base/FileDescriptor.h"

namespace ostravel::linuxplatform {

// Refers to a process, to find out later whether it is still alive. Keeps its /proc/PID/stat open,
// which never shows another process and which every user may read. A value type; usable from any
// thread.
class ProcessLife {
 public:
  // Refers to no process: it has ended.
  ProcessLife() = default;
  // state: /proc/PID/stat, open for reading. startTime: in clock ticks since boot; another process
  // had its number if it differs.
  ProcessLife(FileDescriptor state, std::uint64_t startTime)
      : state_(std::make_shared<const FileDescriptor>(std::move(state))), startTime_(startTime) {}
  ProcessLife(pid_t pid, std::uint64_t startTime);

  // True even while the process is exiting: the kernel closes the descriptors of a killed process
  // one by one, so some peers notice while other descriptors are still open.
  bool hasEnded() const;

  // The open file; absent if it could not be opened.
  const std::shared_ptr<const FileDescriptor>& state() const { return state_; }

 private:
  std::shared_ptr<const FileDescriptor> state_;
  std::uint64_t startTime_ = 0;
};

}  // namespace ostravel::linuxplatform
