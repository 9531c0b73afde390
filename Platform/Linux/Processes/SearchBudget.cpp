#include "Platform/Linux/Processes/SearchBudget.h"

#include <ctime>

namespace ostravel::linuxplatform {

SearchBudget::SearchBudget(std::chrono::nanoseconds work, std::chrono::nanoseconds longest)
    : work_(work), longest_(longest) {}

bool SearchBudget::isUsedUp() const {
  const auto elapsed = std::chrono::steady_clock::now() - start_;
  // The thread cannot have run for longer than that. Reading its own clock takes a system call.
  if (elapsed < work_) {
    return false;
  }
  return elapsed >= longest_ || timeOfThread() - startOfThread_ >= work_;
}

std::chrono::nanoseconds SearchBudget::timeOfThread() {
  timespec time{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

}  // namespace ostravel::linuxplatform
