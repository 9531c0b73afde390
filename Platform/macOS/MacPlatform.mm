#import "Platform/macOS/MacPlatform.h"

#import <Foundation/Foundation.h>

#include <utility>

#import "Platform/macOS/Dispatch/SystemDispatchQueue.h"
#import "Platform/macOS/Dispatch/SystemDispatchTimer.h"
#import "Platform/macOS/Foundation/FoundationText.h"

namespace ostravel::macos {

MacPlatform::MacPlatform() : defaultLog_(Reference<os_log_t>::retaining(OS_LOG_DEFAULT)) {}

std::shared_ptr<platform::DispatchQueue> MacPlatform::makeQueue(std::string label,
                                                                platform::DispatchQueueKind kind) {
  return std::make_shared<SystemDispatchQueue>(std::move(label), kind);
}

std::shared_ptr<platform::DispatchTimer> MacPlatform::makeTimer(
    std::shared_ptr<platform::DispatchQueue> queue) {
  return std::make_shared<SystemDispatchTimer>(
      static_cast<const SystemDispatchQueue&>(*queue).handle());
}

std::shared_ptr<platform::Log> MacPlatform::makeLog(std::string subsystem, std::string category) {
  return std::make_shared<UnifiedLog>(
      Reference<os_log_t>::adopting(os_log_create(subsystem.c_str(), category.c_str())));
}

void MacPlatform::systemLog(std::string_view line) {
  @autoreleasepool {
    NSLog(@"%@", makeString(line));
  }
}

std::optional<std::string> MacPlatform::mainBundleIdentifier() const {
  @autoreleasepool {
    NSString* const identifier = [[NSBundle mainBundle] bundleIdentifier];
    return identifier != nil ? std::optional(textOf(identifier)) : std::nullopt;
  }
}

}  // namespace ostravel::macos
