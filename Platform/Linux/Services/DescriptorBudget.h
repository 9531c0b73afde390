#pragma once

#include <cstddef>

#include "Platform/Linux/Services/RelayLimits.h"
#include "Platform/Linux/Services/SharedBudget.h"

namespace ostravel::linuxplatform {

// Counts the descriptors of the tunnels' sockets and pipes, so that new flows can be declined
// before the process reaches its limit. Owned by the process entry; outlives every event loop.
// Usable from any thread. It does not enforce the limit.
class DescriptorBudget : public SharedBudget {
 public:
  // Raises the soft limit of open files to the hard one and uses that.
  DescriptorBudget();
  // Uses the given limit without changing that of the process.
  explicit DescriptorBudget(std::size_t limit) : SharedBudget(limit, &UserShare::descriptors) {}

  // True if only the reserve is left; no new flow should be taken.
  bool nearLimit() const { return unused() <= limits::kDescriptorReserve; }

  // The reserve is not part of any share.
  bool isWithinShare(UserShare& share, std::size_t count) const {
    return SharedBudget::isWithinShare(share, count + limits::kDescriptorReserve);
  }
};

}  // namespace ostravel::linuxplatform
