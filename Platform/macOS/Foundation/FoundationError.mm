#import "Platform/macOS/Foundation/FoundationError.h"

#include <memory>

#import "Platform/macOS/Foundation/FoundationText.h"
#import "Platform/macOS/Foundation/Reference.h"

namespace ostravel::macos {

namespace {

class HeldError final : public platform::Error::PlatformObject {
 public:
  explicit HeldError(NSError* error) : error_(Reference<NSError*>::retaining(error)) {}

  NSError* get() const { return error_.get(); }

 private:
  const Reference<NSError*> error_;
};

}  // namespace

platform::OptionalError errorFrom(NSError* error) {
  if (error == nil) {
    return std::nullopt;
  }
  return platform::Error{textOf([error domain]), static_cast<std::int64_t>([error code]),
                         textOf([error localizedDescription]),
                         std::make_shared<const HeldError>(error)};
}

NSError* makeNSError(const platform::OptionalError& error) {
  if (!error) {
    return nil;
  }
  if (const auto* held = dynamic_cast<const HeldError*>(error->platformObject.get())) {
    return [[held->get() retain] autorelease];
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
