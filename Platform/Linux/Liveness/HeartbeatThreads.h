#pragma once

#include <vector>

#include "Platform/Linux/Liveness/Heartbeat.h"
#include "Platform/Linux/Relay/EventLoopGroup.h"
#include "Platform/Linux/Services/WorkerPool.h"

namespace ostravel::linuxplatform {

// Makes every event loop and the work threads participants of the heartbeat, until the memberships
// are destroyed, which is before the loops and the pool are.
//
// The work threads have made progress when any of them has run a new item: two of them may be
// blocked for long, by the health probe and by a monitoring peer that does not read.
[[nodiscard]] std::vector<Heartbeat::Membership> joinHeartbeat(Heartbeat& heartbeat,
                                                               EventLoopGroup& loops,
                                                               WorkerPool& workers);

}  // namespace ostravel::linuxplatform
