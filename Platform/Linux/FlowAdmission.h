#pragma once

#include <string_view>

#include "Platform/Linux/DescriptorBudget.h"
#include "Platform/Linux/UserShare.h"

namespace ostravel::linuxplatform {

// Whether one more TCP flow of a user may be held and offered, as far as what the user's flows are
// using already goes. What is not admitted is left to the system, so that nobody's connections fail
// or wait because of somebody else's.
class FlowAdmission {
 public:
  enum class Answer {
    admitted,
    // The user has its share of the handshakes that may be pending.
    handshakeShare,
    // A handshake of the user has timed out, and another one is on its way to find out whether the
    // proxy answers again, or has just found that it does not.
    onTrial,
    // The user has its share of the descriptors.
    descriptorShare,
  };

  // Half of the handshakes that the core lets be pending (48): what the users share is never
  // exhausted by one of them.
  static constexpr std::size_t kHeldFlowsPerUser = 24;
  // A tunnel needs two sockets.
  static constexpr std::size_t kDescriptorsPerTunnel = 2;

  static Answer admit(UserShare& share, const DescriptorBudget& descriptors,
                      UserShare::Clock::time_point now) {
    if (share.held() >= kHeldFlowsPerUser) {
      return Answer::handshakeShare;
    }
    if (share.isOnTrial() && (share.held() > 0 || !share.mayBeTried(now))) {
      return Answer::onTrial;
    }
    // Those that are held have not got their sockets yet.
    const std::size_t wanted = (share.held() + 1) * kDescriptorsPerTunnel;
    if (!descriptors.isWithinShare(share, wanted)) {
      return Answer::descriptorShare;
    }
    return Answer::admitted;
  }
};

}  // namespace ostravel::linuxplatform
