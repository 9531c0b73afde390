#include "Platform/Shared/POSIXClock.h"

#include <chrono>

namespace ostravel::platform {

double POSIXClock::secondsSince1970() const {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration<double>(sinceEpoch).count();
}

}  // namespace ostravel::platform
