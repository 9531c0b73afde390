#pragma once

#import <Foundation/Foundation.h>
#include <dispatch/dispatch.h>

#include <string_view>

// The Mac on which the host application finds itself: its state is a property list file, which the
// environment variable STANDIN_MAC names and which is written again after every change. One per
// process, usable from any thread. The keys, all of which may be missing:
//
//   systemVersion   number: the major version; by default 15
//   extensions      list of the installed extensions, each a dictionary of
//                   shortVersion, version, enabled, awaitingApproval, uninstalling
//   carried         dictionary: shortVersion and version of the extension in the application
//   approval        text: "needed" until a test writes "given" into the file
//   rebootNeeded    yes or no: requests are completed by a restart
//   replacementTold yes or no: asked about the replacement of an equal version, too, as in the mode
//                   for developers
//   configurations  list of what the application has saved, each a dictionary of
//                   localizedDescription, enabled, serverAddress, providerBundleIdentifier,
//                   providerConfiguration, status
//   starting        text: "runs" (by default), "stops", "hangs", "disappears" or "runsUnnotified"
//   stopping        text: "stops" (by default) or "hangs"
//   failures        by the name of a call, a dictionary of domain, code and text; without a text
//                   the error has no description
//   unanswered      list of the names of calls that the system never answers; "foundProperties" is
//                   the answer of "properties" without its end
//   calls           list of the names of all calls that were made; only written
@interface StandInMac : NSObject {
 @private
  NSString* _path;
  NSMutableDictionary* _state;
  NSRecursiveLock* _lock;
  dispatch_queue_t _queue;
}
+ (StandInMac*)mac;
// The queue on which the system carries out requests.
- (dispatch_queue_t)queue;
- (NSString*)extensionIdentifier;
// A copy.
- (id)valueOf:(NSString*)key;
- (BOOL)says:(NSString*)key is:(NSString*)text;
- (void)change:(void (^)(NSMutableDictionary* state))change;
// Reads this from the file again: a test may have written it.
- (void)readAgain:(NSString*)key;
- (void)noteCall:(NSString*)name;
- (BOOL)leavesUnanswered:(NSString*)name;
// Scripted; nil for none.
- (NSError*)failureOf:(NSString*)name;
@end

namespace ostravel::standin {

NSError* makeError(NSString* domain, NSInteger code, NSString* text);

// Ends the process, as the frameworks do when their rules are broken.
[[noreturn]] void endForBrokenRule(std::string_view rule);

}  // namespace ostravel::standin
