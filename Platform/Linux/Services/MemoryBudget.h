#pragma once

#include <memory>

#include "Platform/Linux/Services/RelayLimits.h"
#include "Platform/Linux/Services/SharedBudget.h"

namespace ostravel::linuxplatform {

// The memory of the chunks that wait for their readers, in buffers and pipes. Owned by the event
// loop group. When it is used up, streams read in small pieces, which are not counted.
class MemoryBudget : public SharedBudget {
 public:
  explicit MemoryBudget(std::size_t limit = limits::kMemoryForChunks)
      : SharedBudget(limit, &UserShare::memory) {}

  // True if the user may use this many more bytes; without a share, if any are left.
  bool permits(const Reference<UserShare>& share, std::size_t bytes) const {
    return share ? isWithinShare(*share, bytes) : bytes <= unused();
  }
};

}  // namespace ostravel::linuxplatform
