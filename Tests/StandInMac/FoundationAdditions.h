#pragma once

#import <Foundation/Foundation.h>

// What the Mac's Foundation and runtime have and this machine's do not.
@interface NSString (StandIn)
- (NSString*)lowercaseStringWithLocale:(NSLocale*)locale;
@end

extern "C" {
id objc_loadWeak(id* location);
id objc_storeWeak(id* location, id object);
}
