#pragma once

#import <NetworkExtension/NetworkExtension.h>

#include <cstdint>
#include <memory>

namespace ostravel::macos {

class SystemTCPConnection;

// Key-value observation of the "state" of the system's connections.
//
// The system does not retain an observer, not even during a notification, which may be under way on
// another thread when the observation ends. Therefore one object that lives as long as the process
// observes all connections, and a notification identifies its connection by a number that is never
// reused.

// Notifies the adapter of every change from now on, on the thread that makes it. Returns the number
// of the observation, which must be stopped exactly once, before the connection is released. Does
// nothing for nil.
std::uintptr_t startObservingState(NWTCPConnection* connection,
                                   std::weak_ptr<SystemTCPConnection> adapter);
void stopObservingState(NWTCPConnection* connection, std::uintptr_t observation);

}  // namespace ostravel::macos
