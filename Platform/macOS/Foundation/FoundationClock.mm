#import "Platform/macOS/Foundation/FoundationClock.h"

#import <Foundation/Foundation.h>

namespace ostravel::macos {

double FoundationClock::secondsSince1970() const {
  @autoreleasepool {
    return [[NSDate date] timeIntervalSince1970];
  }
}

}  // namespace ostravel::macos
