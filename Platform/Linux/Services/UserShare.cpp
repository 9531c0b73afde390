#include "Platform/Linux/Services/UserShare.h"

#include <algorithm>

namespace ostravel::linuxplatform {

void UserShare::handshakeTimedOut(Clock::time_point now) {
  // Flows of one user may end on several event loops at once; an inexact count does no harm.
  if (isOnTrial() && !isTrialDue(now)) {
    return;
  }
  const unsigned failed = failedTrials_.fetch_add(1, std::memory_order_relaxed);
  constexpr unsigned kDoublings = 4;
  const Clock::duration pause = std::min<Clock::duration>(
      kShortestTrialPause * (1U << std::min(failed, kDoublings)), kLongestTrialPause);
  nextTrial_.store((now + pause).time_since_epoch(), std::memory_order_relaxed);
}

bool UserShare::exceedsRate(Clock::time_point now) {
  const std::chrono::duration<double> elapsed = now - lastOffer_;
  lastOffer_ = now;
  offersLeft_ = std::min(kOfferBurst, offersLeft_ + elapsed.count() * kOffersPerSecond);
  if (offersLeft_ < 1) {
    return true;
  }
  offersLeft_ -= 1;
  return false;
}

}  // namespace ostravel::linuxplatform
