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

}  // namespace ostravel::linuxplatform
