#pragma once

#import <Foundation/Foundation.h>

// The part of the Mac's Foundation and runtime that this machine's lack.
@interface NSString (StandIn)
- (NSString*)lowercaseStringWithLocale:(NSLocale*)locale;
@end

extern "C" {
id objc_loadWeak(id* location);
id objc_storeWeak(id* location, id object);
}
