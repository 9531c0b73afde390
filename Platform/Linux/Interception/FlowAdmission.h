#pragma once

#include <cstddef>
#include <optional>

#include "Platform/Interface/SystemLimits.h"
#include "Platform/Linux/Identity/LeaveReason.h"
#include "Platform/Linux/Services/DescriptorBudget.h"
#include "Platform/Linux/Services/UserShare.h"

namespace ostravel::linuxplatform {

// Decides whether one more TCP flow of a user may be held and offered, given what that user's flows
// already use. Flows that are not admitted are left to the system, so that no user's connections
// fail or wait because of another's.
class FlowAdmission {
 public:
  // Half of the pending handshakes: no single user can exhaust the shared limit.
  static constexpr std::size_t kHeldFlowsPerUser = platform::limits::kMaxPendingHandshakes / 2;
  // A tunnel needs two sockets.
  static constexpr std::size_t kDescriptorsPerTunnel = 2;

  // Empty if the flow may be offered.
  static std::optional<LeaveReason> reasonAgainst(UserShare& share,
                                                  const DescriptorBudget& descriptors,
                                                  UserShare::Clock::time_point now) {
    if (share.held() >= kHeldFlowsPerUser) {
      return LeaveReason::handshakeShare;
    }
    if (share.isOnTrial() && (share.held() > 0 || !share.isTrialDue(now))) {
      return LeaveReason::onTrial;
    }
    // Held flows have not opened their sockets yet.
    const std::size_t wanted = (share.held() + 1) * kDescriptorsPerTunnel;
    if (!descriptors.isWithinShare(share, wanted)) {
      return LeaveReason::descriptorShare;
    }
    return std::nullopt;
  }
};

}  // namespace ostravel::linuxplatform
