#pragma once

#include <cstddef>

#include "Platform/Interface/Result.h"

namespace ostravel::linuxplatform {

// Memory shared with a file or the kernel (mmap(2)), unmapped on destruction.
class MemoryMapping {
 public:
  // protection as for mmap(2). Errors are of kPOSIXErrorDomain.
  static platform::Result<MemoryMapping> ofFile(int descriptor, std::size_t size, int protection);

  // An empty mapping.
  MemoryMapping() = default;
  MemoryMapping(MemoryMapping&& other) noexcept;
  MemoryMapping& operator=(MemoryMapping&& other) noexcept;
  ~MemoryMapping();

  template <typename Content>
  Content* as() const {
    return static_cast<Content*>(memory_);
  }

 private:
  MemoryMapping(void* memory, std::size_t size) : memory_(memory), size_(size) {}

  void* memory_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace ostravel::linuxplatform
