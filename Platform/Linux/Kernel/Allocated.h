#pragma once

#include <new>

namespace ostravel::linuxplatform {

// What a C library has allocated; throws std::bad_alloc for null. libnftnl uses what it is given
// without a look at it.
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
