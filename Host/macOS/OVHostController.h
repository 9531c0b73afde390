#pragma once

#import <NetworkExtension/NetworkExtension.h>
#import <SystemExtensions/SystemExtensions.h>

#include "Host/macOS/HostCommand.h"

// Carries out one command and ends the process: 0 when it was done or a restart of the Mac will do
// it, 1 when something failed. Lives as long as the process; runs on the main queue. Prints what
// happens.
@interface OVHostController : NSObject <OSSystemExtensionRequestDelegate> {
 @private
  ostravel::host::HostCommand _command;
  // Of the extension.
  NSString* _identifier;
  // The extension that was active until now is not the one that is active now.
  BOOL _wasReplaced;
  // The exit status when everything that follows succeeds.
  int _exitStatus;
}
- (instancetype)initWithCommand:(const ostravel::host::HostCommand&)command;
- (void)run;
@end
