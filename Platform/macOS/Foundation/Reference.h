#pragma once

#include <Block.h>

#include <utility>

namespace ostravel::macos {

// Takes and releases references: by message for Objective-C objects, which include Dispatch objects
// and log handles, and by the block functions for blocks, whose first reference has to move them
// off the stack.
template <typename Pointer>
struct Ownership {
  static Pointer retain(Pointer object) { return [object retain]; }
  static void release(Pointer object) { [object release]; }
};
template <typename Result, typename... Arguments>
struct Ownership<Result (^)(Arguments...)> {
  using Pointer = Result (^)(Arguments...);
  static Pointer retain(Pointer block) {
    if (!block) {
      return nullptr;
    }
    return Block_copy(block);
  }
  static void release(Pointer block) {
    if (block) {
      Block_release(block);
    }
  }
};

// The one owner of Objective-C references in C++: the sources are compiled without automatic
// reference counting, so that they also compile for a runtime that has none. May hold nil. Pointer
// is the object pointer type or the block type itself.
template <typename Pointer>
class Reference {
 public:
  Reference() = default;
  ~Reference() { Ownership<Pointer>::release(object_); }

  // Adds a reference.
  static Reference retaining(Pointer object) {
    return Reference(Ownership<Pointer>::retain(object));
  }
  // Takes over the reference that the caller got from alloc, copy or a create function.
  static Reference adopting(Pointer object) { return Reference(object); }

  Reference(const Reference& other) : object_(Ownership<Pointer>::retain(other.object_)) {}
  Reference(Reference&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  Reference& operator=(Reference other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  // Borrowed: valid as long as this reference.
  Pointer get() const { return object_; }

 private:
  explicit Reference(Pointer object) : object_(object) {}

  Pointer object_ = nullptr;
};

}  // namespace ostravel::macos
