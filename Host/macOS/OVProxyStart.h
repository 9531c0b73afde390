#pragma once

#import <NetworkExtension/NetworkExtension.h>

// Brings the proxy of a configuration up, waits until it runs, and ends the process: 0 when it
// runs, 1 when it has failed, or does not run after half a minute. Used once, on the main queue;
// lives as long as the process.
//
// A proxy that runs already is left alone, unless it has to be restarted for what is new: it reads
// its configuration when it starts. Connections through it are closed by that.
@interface OVProxyStart : NSObject {
 @private
  NEVPNConnection* _connection;
  enum class Phase {
    // Waits until what ran before has stopped.
    stopping,
    // The system has accepted the start. Until it begins, a status is still one from before.
    requested,
    // Running or stopped is the outcome.
    begun
  } _phase;
}
// The connection belongs to a manager that has been loaded since it was saved last.
- (instancetype)initWithConnection:(NEVPNConnection*)connection;
- (void)runRestarting:(BOOL)restarts;
@end
