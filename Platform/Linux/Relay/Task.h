#pragma once

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

namespace ostravel::linuxplatform {

// Work of an event loop that runs at most once. Unlike std::function it accepts move-only
// callables, and the usual ones (a weak pointer, or two pointers) need no allocation. A
// platform::Callback stores its callable in the same way, but has to copy it and to pass arguments
// on; a base for what they have in common would be longer than that.
class Task {
 public:
  Task() = default;
  template <typename Work>
  requires(!std::is_same_v<std::decay_t<Work>, Task>)
      Task(Work&& work) {  // NOLINT(google-explicit-constructor): takes any callable
    using Callable = std::decay_t<Work>;
    if constexpr (kFits<Callable>) {
      ::new (static_cast<void*>(storage_)) Callable(std::forward<Work>(work));
      operations_ = &kInPlace<Callable>;
    } else {
      ::new (static_cast<void*>(storage_)) Callable*(new Callable(std::forward<Work>(work)));
      operations_ = &kAllocated<Callable>;
    }
  }
  Task(Task&& other) noexcept { take(other); }
  Task& operator=(Task&& other) noexcept {
    if (this != &other) {
      // The old work is destroyed last, because its destruction may assign to this task again.
      Task old(std::move(*this));
      take(other);
    }
    return *this;
  }
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;
  ~Task() {
    if (operations_ != nullptr) {
      operations_->destroy(storage_);
    }
  }

  explicit operator bool() const { return operations_ != nullptr; }
  void operator()() { operations_->run(storage_); }

 private:
  static constexpr std::size_t kRoom = 2 * sizeof(void*);

  struct Operations {
    void (*run)(void* storage);
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
  static constexpr Operations kInPlace{
      .run = [](void* storage) { at<Callable>(storage)(); },
      .move =
          [](void* source, void* target) noexcept {
            ::new (target) Callable(std::move(at<Callable>(source)));
            at<Callable>(source).~Callable();
          },
      .destroy = [](void* storage) noexcept { at<Callable>(storage).~Callable(); }};

  template <typename Callable>
  static constexpr Operations kAllocated{
      .run = [](void* storage) { (*at<Callable*>(storage))(); },
      .move = [](void* source,
                 void* target) noexcept { ::new (target) Callable*(at<Callable*>(source)); },
      .destroy = [](void* storage) noexcept { delete at<Callable*>(storage); }};

  void take(Task& other) noexcept {
    operations_ = std::exchange(other.operations_, nullptr);
    if (operations_ != nullptr) {
      operations_->move(other.storage_, storage_);
    }
  }

  alignas(void*) std::byte storage_[kRoom];
  const Operations* operations_ = nullptr;
};

}  // namespace ostravel::linuxplatform
