#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace ostravel {

// Base of objects that count the References to them, of which thousands are kept for a long time: a
// Reference is one word and its count half of one, where a std::shared_ptr takes two words, and its
// counts two more. The last Reference, on any thread, deletes the object as its own type. Made by
// makeReference().
class ReferenceCounted {
 public:
  ReferenceCounted(const ReferenceCounted&) = delete;
  ReferenceCounted& operator=(const ReferenceCounted&) = delete;

 protected:
  ReferenceCounted() = default;
  ~ReferenceCounted() = default;

 private:
  template <typename Object>
  friend class Reference;

  mutable std::atomic<std::uint32_t> references_ = 0;
};

// Shares the ownership of an object, or is null. As safe on several threads as a std::shared_ptr.
template <typename Object>
class Reference {
 public:
  Reference() = default;
  Reference(std::nullptr_t) {}  // NOLINT(google-explicit-constructor): as std::shared_ptr
  // Of an object that was made by makeReference().
  explicit Reference(Object* object) : object_(object) {
    if (object_ != nullptr) {
      object_->references_.fetch_add(1, std::memory_order_relaxed);
    }
  }
  Reference(const Reference& other) : Reference(other.object_) {}
  Reference(Reference&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  Reference& operator=(Reference other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~Reference() {
    if (object_ != nullptr && object_->references_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      delete object_;
    }
  }

  Object* get() const { return object_; }
  Object& operator*() const { return *object_; }
  Object* operator->() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }
  // Leaves the ownership to a plain pointer, from which adopt() takes it back.
  [[nodiscard]] Object* detach() { return std::exchange(object_, nullptr); }
  [[nodiscard]] static Reference adopt(Object* object) {
    Reference adopted;
    adopted.object_ = object;
    return adopted;
  }

  // 0 if it is null.
  std::size_t count() const {
    return object_ != nullptr ? object_->references_.load(std::memory_order_acquire) : 0;
  }

  friend bool operator==(const Reference& left, const Reference& right) {
    return left.object_ == right.object_;
  }
  friend bool operator==(const Reference& reference, std::nullptr_t) {
    return reference.object_ == nullptr;
  }

 private:
  Object* object_ = nullptr;
};

template <typename Object, typename... Arguments>
Reference<Object> makeReference(Arguments&&... arguments) {
  return Reference<Object>(new Object(std::forward<Arguments>(arguments)...));
}

}  // namespace ostravel
