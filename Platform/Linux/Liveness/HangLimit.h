#pragma once

#include <chrono>

namespace ostravel::linuxplatform {

// How long a process may make no progress before it counts as hung: longer while it gets no
// processor time. Reads no clock itself. Owned and used by the guardian's one thread.
class HangLimit {
 public:
  using Clock = std::chrono::steady_clock;

  explicit HangLimit(std::chrono::seconds starved) : starved_(starved) {}

  // Returns the limit that applies now; usual is that of a process that does get processor time. A
  // starved one has more time only until it has not been starved for the usual limit: it may have
  // been stopped since.
  std::chrono::seconds observe(Clock::time_point now, std::chrono::seconds usual, bool isStarved);

  // The process has made progress.
  void forget() { starvedUntil_ = Clock::time_point::min(); }

 private:
  const std::chrono::seconds starved_;
  Clock::time_point starvedUntil_ = Clock::time_point::min();
};

}  // namespace ostravel::linuxplatform
