#pragma once

#import <Foundation/Foundation.h>

#include <memory>

#include "Platform/Interface/Completion.h"
#import "Platform/macOS/Dispatch/CompletionQueue.h"
#import "Platform/macOS/Foundation/Reference.h"

namespace ostravel::macos {

using ErrorBlock = void (^)(NSError* error);
using ReadBlock = void (^)(NSData* data, NSError* error);

// Completion handlers for the system that run the core's on the queue. owner: the object whose
// operation it is, kept alive while the completion runs. The completion runs even if the object no
// longer exists.
Reference<ErrorBlock> errorBlock(std::shared_ptr<CompletionQueue> queue,
                                 std::weak_ptr<const void> owner,
                                 platform::ErrorCompletion completion);
// An error excludes data, whatever the system delivers.
Reference<ReadBlock> readBlock(std::shared_ptr<CompletionQueue> queue,
                               std::weak_ptr<const void> owner,
                               platform::ReadCompletion completion);

}  // namespace ostravel::macos
