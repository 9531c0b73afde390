#import "Platform/macOS/Foundation/FoundationError.h"

#import "Platform/macOS/Foundation/FoundationText.h"

namespace ostravel::macos {

platform::OptionalError errorFrom(NSError* error) {
  if (error == nil) {
    return std::nullopt;
  }
  return platform::Error{textOf([error domain]), static_cast<std::int64_t>([error code]),
                         textOf([error localizedDescription])};
}

NSError* makeNSError(const platform::OptionalError& error) {
  if (!error) {
    return nil;
  }
  NSDictionary* userInfo = nil;
  if (!error->localizedDescription.empty()) {
    userInfo = [NSDictionary dictionaryWithObject:makeString(error->localizedDescription)
                                           forKey:NSLocalizedDescriptionKey];
  }
  return [NSError errorWithDomain:makeString(error->domain)
                             code:static_cast<NSInteger>(error->code)
                         userInfo:userInfo];
}

}  // namespace ostravel::macos
