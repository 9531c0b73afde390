#pragma once

#import <NetworkExtension/NetworkExtension.h>
#import <SystemExtensions/SystemExtensions.h>

#include "Host/macOS/HostCommand.h"

// Executes one command and ends the process: 0 if it succeeded or will take effect when the Mac
// restarts, 1 if it failed. Lives as long as the process; runs on the main queue. Prints its
// progress.
@interface OVHostController : NSObject <OSSystemExtensionRequestDelegate> {
 @private
  ostravel::host::HostCommand _command;
  // The extension's bundle identifier.
  NSString* _identifier;
  // Another version of the extension was active before.
  BOOL _wasReplaced;
  // The exit status if all further steps succeed.
  int _exitStatus;
}
- (instancetype)initWithCommand:(const ostravel::host::HostCommand&)command;
- (void)run;
@end
