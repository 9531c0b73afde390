#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace ostravel::platform {

template <typename Signature>
class Callback;

// A function object, as std::function, for callbacks that are made for every transfer and wait as
// long as an idle tunnel: one that captures a shared or weak pointer, as nearly all do, needs no
// allocation, and the object is three words.
template <typename... Arguments>
class Callback<void(Arguments...)> {
 public:
  Callback() = default;
  Callback(std::nullptr_t) {}  // NOLINT(google-explicit-constructor): as std::function
  template <typename Work>
  requires(!std::is_same_v<std::decay_t<Work>, Callback> &&
           std::is_invocable_v<std::decay_t<Work>&, Arguments...>)
      Callback(Work&& work) {  // NOLINT(google-explicit-constructor): takes any callable
    using Callable = std::decay_t<Work>;
    if constexpr (requires { work == nullptr; }) {
      if (work == nullptr) {
        return;
      }
    }
    if constexpr (kFits<Callable>) {
      ::new (static_cast<void*>(storage_)) Callable(std::forward<Work>(work));
      operations_ = &kInPlace<Callable>;
    } else {
      ::new (static_cast<void*>(storage_)) Callable*(new Callable(std::forward<Work>(work)));
      operations_ = &kAllocated<Callable>;
    }
  }
  Callback(const Callback& other) {
    if (other.operations_ != nullptr) {
      other.operations_->copy(other.storage_, storage_);
      operations_ = other.operations_;
    }
  }
  Callback(Callback&& other) noexcept { take(other); }
  // The old callable is destroyed last, because its destruction may use this object.
  Callback& operator=(Callback other) noexcept {
    Callback old(std::move(*this));
    take(other);
    return *this;
  }
  ~Callback() {
    if (operations_ != nullptr) {
      operations_->destroy(storage_);
    }
  }

  explicit operator bool() const { return operations_ != nullptr; }
  friend bool operator==(const Callback& callback, std::nullptr_t) {
    return callback.operations_ == nullptr;
  }

  // Must not be empty.
  void operator()(Arguments... arguments) const {
    operations_->run(storage_, std::forward<Arguments>(arguments)...);
  }

 private:
  static constexpr std::size_t kRoom = 2 * sizeof(void*);

  struct Operations {
    void (*run)(void* storage, Arguments&&... arguments);
    void (*copy)(const void* source, void* target);
    // Destroys the source.
    void (*move)(void* source, void* target) noexcept;
    void (*destroy)(void* storage) noexcept;
  };

  template <typename Callable>
  static constexpr bool kFits =
      sizeof(Callable) <= kRoom &&
      alignof(Callable) <= alignof(void*) && std::is_nothrow_move_constructible_v<Callable>;

  template <typename Callable>
  static Callable& at(void* storage) {
    return *std::launder(static_cast<Callable*>(storage));
  }
  template <typename Callable>
  static const Callable& at(const void* storage) {
    return *std::launder(static_cast<const Callable*>(storage));
  }

  template <typename Callable>
  static constexpr Operations kInPlace{
      .run = [](void* storage,
                Arguments&&... arguments) { at<Callable>(storage)(std::move(arguments)...); },
      .copy = [](const void* source,
                 void* target) { ::new (target) Callable(at<Callable>(source)); },
      .move =
          [](void* source, void* target) noexcept {
            ::new (target) Callable(std::move(at<Callable>(source)));
            at<Callable>(source).~Callable();
          },
      .destroy = [](void* storage) noexcept { at<Callable>(storage).~Callable(); }};

  template <typename Callable>
  static constexpr Operations kAllocated{
      .run = [](void* storage,
                Arguments&&... arguments) { (*at<Callable*>(storage))(std::move(arguments)...); },
      .copy = [](const void* source,
                 void* target) { ::new (target) Callable*(new Callable(*at<Callable*>(source))); },
      .move = [](void* source,
                 void* target) noexcept { ::new (target) Callable*(at<Callable*>(source)); },
      .destroy = [](void* storage) noexcept { delete at<Callable*>(storage); }};

  void take(Callback& other) noexcept {
    operations_ = std::exchange(other.operations_, nullptr);
    if (operations_ != nullptr) {
      operations_->move(other.storage_, storage_);
    }
  }

  // Running a callable may change its captures, as for std::function.
  alignas(void*) mutable std::byte storage_[kRoom];
  const Operations* operations_ = nullptr;
};

}  // namespace ostravel::platform
