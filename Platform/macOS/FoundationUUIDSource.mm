#import "Platform/macOS/FoundationUUIDSource.h"

#import <Foundation/Foundation.h>

#import "Platform/macOS/FoundationText.h"

namespace ostravel::macos {

std::string FoundationUUIDSource::randomUUID() {
  @autoreleasepool {
    return textOf([[NSUUID UUID] UUIDString]);
  }
}

}  // namespace ostravel::macos
