#include "Platform/Linux/Kernel/MemoryMapping.h"

#include <sys/mman.h>

#include <cerrno>
#include <utility>

#include "Platform/Interface/Error.h"

namespace ostravel::linuxplatform {

platform::Result<MemoryMapping> MemoryMapping::ofFile(int descriptor, std::size_t size,
                                                      int protection) {
  void* const memory = ::mmap(nullptr, size, protection, MAP_SHARED, descriptor, 0);
  if (memory == MAP_FAILED) {
    return platform::systemCallError(errno, "memory cannot be mapped");
  }
  return MemoryMapping(memory, size);
}

MemoryMapping::MemoryMapping(MemoryMapping&& other) noexcept
    : memory_(std::exchange(other.memory_, nullptr)), size_(std::exchange(other.size_, 0)) {}

MemoryMapping& MemoryMapping::operator=(MemoryMapping&& other) noexcept {
  std::swap(memory_, other.memory_);
  std::swap(size_, other.size_);
  return *this;
}

MemoryMapping::~MemoryMapping() {
  if (memory_ != nullptr) {
    ::munmap(memory_, size_);
  }
}

}  // namespace ostravel::linuxplatform
