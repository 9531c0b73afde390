#pragma once

#include <chrono>

namespace ostravel::linuxplatform {

// Limits how long a search may continue while a first packet is held for it. It counts the thread's
// running time: on a busy machine the thread may be preempted for longer than a whole search takes,
// and giving up then would fail for every flow, however little there is to search. Because the
// application waits by the clock, a limit by the clock applies as well. Starts on construction;
// used by the thread that created it.
class SearchBudget {
 public:
  // longest: by the clock, at least work.
  SearchBudget(std::chrono::nanoseconds work, std::chrono::nanoseconds longest);

  bool isUsedUp() const;

  // The calling thread's running time so far.
  static std::chrono::nanoseconds timeOfThread();

 private:
  const std::chrono::nanoseconds work_;
  const std::chrono::nanoseconds longest_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  const std::chrono::nanoseconds startOfThread_ = timeOfThread();
};

}  // namespace ostravel::linuxplatform
