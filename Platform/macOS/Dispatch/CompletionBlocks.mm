#import "Platform/macOS/Dispatch/CompletionBlocks.h"

#import "Platform/macOS/Foundation/FoundationData.h"
#import "Platform/macOS/Foundation/FoundationError.h"

namespace ostravel::macos {

Reference<ErrorBlock> errorBlock(std::shared_ptr<CompletionQueue> queue,
                                 std::weak_ptr<const void> owner,
                                 platform::ErrorCompletion completion) {
  return Reference<ErrorBlock>::retaining(^(NSError* error) {
    const auto heldError = Reference<NSError*>::retaining(error);
    queue->run([owner, completion, heldError] {
      [[maybe_unused]] const auto heldOwner = owner.lock();
      completion(errorFrom(heldError.get()));
    });
  });
}

Reference<ReadBlock> readBlock(std::shared_ptr<CompletionQueue> queue,
                               std::weak_ptr<const void> owner,
                               platform::ReadCompletion completion) {
  return Reference<ReadBlock>::retaining(^(NSData* data, NSError* error) {
    const auto heldData = Reference<NSData*>::retaining(error == nil ? data : nil);
    const auto heldError = Reference<NSError*>::retaining(error);
    queue->run([owner, completion, heldData, heldError] {
      [[maybe_unused]] const auto heldOwner = owner.lock();
      completion(dataFrom(heldData.get()), errorFrom(heldError.get()));
    });
  });
}

}  // namespace ostravel::macos
