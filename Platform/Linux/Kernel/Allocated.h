#pragma once

#include <new>

namespace ostravel::linuxplatform {

// Checks an allocation by a C library; throws std::bad_alloc for null. libnftnl does not check its
// arguments.
template <typename Object>
Object* allocated(Object* object) {
  if (object == nullptr) {
    throw std::bad_alloc();
  }
  return object;
}

// The same for a function that keeps a copy and returns a negative number when it has no memory.
inline void requireCopied(int result) {
  if (result < 0) {
    throw std::bad_alloc();
  }
}

}  // namespace ostravel::linuxplatform
