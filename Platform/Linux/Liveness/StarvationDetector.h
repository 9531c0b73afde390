#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace ostravel::linuxplatform {

// Detects that another process gets no processor time: one of its threads is ready to run, and does
// not run from one observation to the next. Such a process is starved, not hung. A stopped, frozen
// or blocked thread is not ready to run, and a spinning one does run.
//
// Owned and used by the guardian's one thread.
class StarvationDetector {
 public:
  // tasks: the folder of the process's threads (proc(5), /proc/PID/task).
  explicit StarvationDetector(std::string tasks) : tasks_(std::move(tasks)) {}

  // True if a thread that was ready to run at the last observation still is and has not run since.
  // Without that information from the kernel (CONFIG_SCHED_INFO), always false.
  bool observe();

  // Forgets all observations.
  void forget() { ready_.clear(); }

 private:
  const std::string tasks_;
  // The threads that were ready to run, with their processor time so far, in nanoseconds.
  std::map<std::string, std::uint64_t> ready_;
};

}  // namespace ostravel::linuxplatform
