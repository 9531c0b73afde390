#pragma once

#import <Foundation/Foundation.h>

// What the Mac's Foundation has and this machine's has not.
@interface NSString (StandIn)
- (NSString*)lowercaseStringWithLocale:(NSLocale*)locale;
@end
