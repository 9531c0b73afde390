#include "Platform/Linux/Liveness/HeartbeatParticipants.h"

namespace ostravel::linuxplatform {

std::string participantNames(HeartbeatParticipants participants) {
  std::string names;
  const auto add = [&names, participants](HeartbeatParticipants participant,
                                          const std::string& name) {
    if ((participants & participant) != 0) {
      names += (names.empty() ? "" : ", ") + name;
    }
  };
  for (unsigned index = 0; index < kMaximumEventLoops; ++index) {
    add(eventLoopParticipant(index), "event loop " + std::to_string(index));
  }
  add(kWorkThreadsParticipant, "the work threads");
  return names;
}

}  // namespace ostravel::linuxplatform
