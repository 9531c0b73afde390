#pragma once

#include <cstdint>
#include <string>

#include "Platform/Linux/Kernel/PacketMarks.h"

namespace ostravel::linuxplatform {

// The set of threads that have to make progress, one bit each: event loop i is bit i.
using HeartbeatParticipants = std::uint32_t;

constexpr HeartbeatParticipants eventLoopParticipant(unsigned index) {
  return HeartbeatParticipants{1} << index;
}
inline constexpr HeartbeatParticipants kWorkThreadsParticipant = HeartbeatParticipants{1} << 31U;
static_assert(kMaximumEventLoops < 31);

// For example "event loop 1, the work threads"; empty for none.
std::string participantNames(HeartbeatParticipants participants);

}  // namespace ostravel::linuxplatform
