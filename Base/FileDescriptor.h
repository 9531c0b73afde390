#pragma once

#include <unistd.h>

#include <utility>

namespace ostravel {

// Owns one descriptor of the kernel, or none.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept
      : descriptor_(std::exchange(other.descriptor_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    FileDescriptor taken(std::move(other));
    std::swap(descriptor_, taken.descriptor_);
    return *this;
  }
  ~FileDescriptor() {
    if (isOpen()) {
      ::close(descriptor_);
    }
  }

  bool isOpen() const { return descriptor_ >= 0; }
  int get() const { return descriptor_; }
  // Passes ownership to the caller.
  int release() { return std::exchange(descriptor_, -1); }

 private:
  int descriptor_ = -1;
};

}  // namespace ostravel
