#import "Platform/macOS/Foundation/FoundationUUIDSource.h"

#import <Foundation/Foundation.h>

#import "Platform/macOS/Foundation/FoundationText.h"

namespace ostravel::macos {

std::string FoundationUUIDSource::randomUUID() {
  @autoreleasepool {
    return textOf([[NSUUID UUID] UUIDString]);
  }
}

}  // namespace ostravel::macos
