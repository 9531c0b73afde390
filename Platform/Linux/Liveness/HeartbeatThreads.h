#pragma once

#include <vector>

#include "Platform/Linux/Liveness/Heartbeat.h"
#include "Platform/Linux/Relay/EventLoopGroup.h"
#include "Platform/Linux/Services/WorkerPool.h"

namespace ostravel::linuxplatform {

// Makes every event loop and the worker threads participants of the heartbeat until the memberships
// are destroyed, which must happen before the loops and the pool are destroyed.
//
// The worker threads have made progress if any of them has run a new item: two of them may block
// for long, in the health probe and for a monitoring peer that does not read.
[[nodiscard]] std::vector<Heartbeat::Membership> joinHeartbeat(Heartbeat& heartbeat,
                                                               EventLoopGroup& loops,
                                                               WorkerPool& workers);

}  // namespace ostravel::linuxplatform
