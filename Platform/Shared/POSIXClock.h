#pragma once

#include "Platform/Interface/Clock.h"

namespace ostravel::platform {

// The system's time of day. Has no state.
class POSIXClock final : public Clock {
 public:
  double secondsSince1970() const override;
  double coarseSecondsSince1970() const override;
};

}  // namespace ostravel::platform
