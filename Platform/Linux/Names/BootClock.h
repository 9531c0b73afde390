#pragma once

#include <chrono>
#include <ctime>

namespace ostravel::linuxplatform {

// Time since boot, including the time for which the machine was suspended (clock_gettime(2)): so
// that names also expire while a laptop sleeps.
struct BootClock {
  using duration = std::chrono::nanoseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<BootClock>;
  static constexpr bool is_steady = true;

  static time_point now() noexcept {
    timespec time{};
    ::clock_gettime(CLOCK_BOOTTIME, &time);
    return time_point(std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
  }
};

}  // namespace ostravel::linuxplatform
