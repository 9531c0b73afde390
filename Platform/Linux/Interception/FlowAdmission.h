#pragma once

#include <cstddef>
#include <optional>

#include "Platform/Interface/SystemLimits.h"
#include "Platform/Linux/Identity/LeaveReason.h"
#include "Platform/Linux/Services/DescriptorBudget.h"
#include "Platform/Linux/Services/UserShare.h"

namespace ostravel::linuxplatform {

// Whether one more TCP flow of a user may be held and offered, as far as what the user's flows are
// using already goes. What is not admitted is left to the system, so that nobody's connections fail
// or wait because of somebody else's.
class FlowAdmission {
 public:
  // Half of the handshakes that may be pending: one user never exhausts what all of them share.
  static constexpr std::size_t kHeldFlowsPerUser = platform::limits::kMaxPendingHandshakes / 2;
  // A tunnel needs two sockets.
  static constexpr std::size_t kDescriptorsPerTunnel = 2;

  // Absent: it may be offered.
  static std::optional<LeaveReason> reasonAgainst(UserShare& share,
                                                  const DescriptorBudget& descriptors,
                                                  UserShare::Clock::time_point now) {
    if (share.held() >= kHeldFlowsPerUser) {
      return LeaveReason::handshakeShare;
    }
    if (share.isOnTrial() && (share.held() > 0 || !share.mayBeTried(now))) {
      return LeaveReason::onTrial;
    }
    // Those that are held have not got their sockets yet.
    const std::size_t wanted = (share.held() + 1) * kDescriptorsPerTunnel;
    if (!descriptors.isWithinShare(share, wanted)) {
      return LeaveReason::descriptorShare;
    }
    return std::nullopt;
  }
};

}  // namespace ostravel::linuxplatform
