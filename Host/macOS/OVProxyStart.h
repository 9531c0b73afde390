#pragma once

#import <NetworkExtension/NetworkExtension.h>

// Starts the proxy of a configuration, waits until it runs, and ends the process: 0 if it runs, 1
// if it has failed or does not run after half a minute. Used once, on the main queue; lives as long
// as the process.
//
// A running proxy is restarted only for a new version or configuration, which it reads when it
// starts. A restart closes the connections through it.
@interface OVProxyStart : NSObject {
 @private
  NEVPNConnection* _connection;
  enum class Phase {
    // Waits until the previous instance has stopped.
    stopping,
    // The system has accepted the start. Until it begins, a status belongs to the previous
    // instance.
    requested,
    // Running or stopped is the outcome.
    begun
  } _phase;
}
// The connection's manager must have been loaded since it was last saved.
- (instancetype)initWithConnection:(NEVPNConnection*)connection;
- (void)runRestarting:(BOOL)restarts;
@end
