#include "Platform/Shared/POSIXClock.h"

#include <chrono>
#include <ctime>

namespace ostravel::platform {

double POSIXClock::secondsSince1970() const {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration<double>(sinceEpoch).count();
}

double POSIXClock::coarseSecondsSince1970() const {
#if defined(CLOCK_REALTIME_COARSE)
  // The time of the last timer interrupt (clock_gettime(2)). Reading the hardware instead would be
  // a third of the cost of a remembered decision.
  constexpr double kSecondsPerNanosecond = 1e-9;
  timespec now{};
  if (::clock_gettime(CLOCK_REALTIME_COARSE, &now) == 0) {
    return static_cast<double>(now.tv_sec) +
           static_cast<double>(now.tv_nsec) * kSecondsPerNanosecond;
  }
#endif
  return secondsSince1970();
}

}  // namespace ostravel::platform
