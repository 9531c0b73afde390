#include "Platform/Linux/Liveness/HangLimit.h"

#include <algorithm>

namespace ostravel::linuxplatform {

std::chrono::seconds HangLimit::observe(Clock::time_point now, std::chrono::seconds usual,
                                        bool isStarved) {
  if (isStarved) {
    starvedUntil_ = now + usual;
  }
  return now < starvedUntil_ ? std::max(usual, starved_) : usual;
}

}  // namespace ostravel::linuxplatform
