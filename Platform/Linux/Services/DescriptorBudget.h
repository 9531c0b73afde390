#pragma once

#include <cstddef>

#include "Platform/Linux/Services/RelayLimits.h"
#include "Platform/Linux/Services/SharedBudget.h"

namespace ostravel::linuxplatform {

// How many of the process's descriptors the sockets and pipes of tunnels use, so that new flows can
// be declined before the limit is reached. Owned by the process entry; outlives every event loop.
// Usable from any thread. It counts and does not enforce.
class DescriptorBudget : public SharedBudget {
 public:
  // Raises the soft limit of open files to the hard one and takes that as the limit.
  DescriptorBudget();
  // With a limit of the caller's choice; the process's own is left alone.
  explicit DescriptorBudget(std::size_t limit) : SharedBudget(limit, &UserShare::descriptors) {}

  // True: what is left is the reserve, and no new flow should be taken.
  bool nearLimit() const { return unused() <= limits::kDescriptorReserve; }

  // The reserve is nobody's share.
  bool isWithinShare(UserShare& share, std::size_t count) const {
    return SharedBudget::isWithinShare(share, count + limits::kDescriptorReserve);
  }
};

}  // namespace ostravel::linuxplatform
