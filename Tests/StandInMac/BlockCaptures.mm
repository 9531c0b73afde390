// Blocks retain the objects that they capture, as on a Mac. The block runtime of this machine only
// copies the pointers; the program's functions replace the runtime's.

#import <Foundation/Foundation.h>
#include <dlfcn.h>

namespace {

// The compiler's flags for a captured object.
constexpr int kIsObject = 3;

using Assign = void (*)(void* destination, const void* object, int kind);
using Dispose = void (*)(const void* object, int kind);

template <typename Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

id objectAt(const void* pointer) {
  return static_cast<id>(const_cast<void*>(pointer));
}

}  // namespace

extern "C" {

void _Block_object_assign(void* destination, const void* object, int kind) {
  static const auto assign = next<Assign>("_Block_object_assign");
  assign(destination, object, kind);
  if (kind == kIsObject) {
    [objectAt(object) retain];
  }
}

void _Block_object_dispose(const void* object, int kind) {
  static const auto dispose = next<Dispose>("_Block_object_dispose");
  dispose(object, kind);
  if (kind == kIsObject) {
    [objectAt(object) release];
  }
}

}  // extern "C"
