#pragma once

#include <atomic>
#include <cstdint>

namespace ostravel::standin {

// The reference count of an object, kept outside it, where a weak reference can ask whether the
// object still exists. From any thread.
class ObjectLife {
 public:
  void retain() { ++references_; }
  // True for the last reference.
  bool release() { return --references_ == 0; }
  // False if the object is destroyed or being destroyed.
  bool tryRetain() {
    auto count = references_.load();
    while (count > 0) {
      if (references_.compare_exchange_weak(count, count + 1)) {
        return true;
      }
    }
    return false;
  }
  std::int64_t references() const { return references_; }

 private:
  // The one that alloc returns.
  std::atomic<std::int64_t> references_ = 1;
};

}  // namespace ostravel::standin
