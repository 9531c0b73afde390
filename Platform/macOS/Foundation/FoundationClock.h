#pragma once

#include "Platform/Interface/Clock.h"

namespace ostravel::macos {

// NSDate's time of day. Has no state.
class FoundationClock final : public platform::Clock {
 public:
  double secondsSince1970() const override;
};

}  // namespace ostravel::macos
