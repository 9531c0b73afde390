#pragma once

#import <NetworkExtension/NetworkExtension.h>
#import <SystemExtensions/SystemExtensions.h>

#include "Packaging/macos/Host/HostCommand.h"

// Carries out one command and ends the process: 0 when it was done, 1 when it failed. Lives as long
// as the process; runs on the main queue. Prints what happens.
@interface OVHostController : NSObject <OSSystemExtensionRequestDelegate> {
 @private
  ostravel::host::HostCommand _command;
  // Of the extension.
  NSString* _identifier;
}
- (instancetype)initWithCommand:(const ostravel::host::HostCommand&)command;
- (void)run;
@end
