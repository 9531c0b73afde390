#pragma once

#include <chrono>

namespace ostravel::linuxplatform {

// How long a search may go on while a first packet is held for it. Counted is the time in which the
// thread really runs: on a busy machine it may not run for longer than a whole search takes, and
// giving up then would find out nothing, again for every flow, however little there is to search.
// Since an application waits by the clock, the clock has the last word. Begins when it is made, and
// is used by the thread that made it.
class SearchBudget {
 public:
  // longest: by the clock, not less than work.
  SearchBudget(std::chrono::nanoseconds work, std::chrono::nanoseconds longest);

  bool isUsedUp() const;

  // How long the calling thread has run so far.
  static std::chrono::nanoseconds timeOfThread();

 private:
  const std::chrono::nanoseconds work_;
  const std::chrono::nanoseconds longest_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  const std::chrono::nanoseconds startOfThread_ = timeOfThread();
};

}  // namespace ostravel::linuxplatform
