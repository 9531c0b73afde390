#pragma once

#import <Foundation/Foundation.h>
#include <objc/runtime.h>

#import "Platform/macOS/Foundation/Reference.h"

namespace ostravel::macos {

// A zeroing weak reference to an Objective-C object. The runtime knows it by its address, so it
// neither moves nor is copied. Usable from any thread.
template <typename Pointer>
class WeakReference {
 public:
  explicit WeakReference(Pointer object) { objc_storeWeak(&object_, object); }
  WeakReference(const WeakReference&) = delete;
  WeakReference& operator=(const WeakReference&) = delete;
  ~WeakReference() { objc_storeWeak(&object_, nil); }

  // Holds nil from the moment in which the object loses its last reference.
  Reference<Pointer> lock() const {
    @autoreleasepool {
      return Reference<Pointer>::retaining(static_cast<Pointer>(objc_loadWeak(&object_)));
    }
  }

 private:
  // Changed and read by the runtime only, which locks it.
  mutable id object_ = nil;
};

}  // namespace ostravel::macos
