#include "Platform/Linux/Relay/BufferPool.h"

#include <utility>

#include "Platform/Linux/Relay/EventLoop.h"
#include "Platform/Linux/Services/RelayLimits.h"

namespace ostravel::linuxplatform {

BufferPool::Buffer BufferPool::take() {
  if (kept_.empty()) {
    return std::make_unique_for_overwrite<std::byte[]>(limits::kBufferSize);
  }
  Buffer buffer = std::move(kept_.back());
  kept_.pop_back();
  return buffer;
}

void BufferPool::release(Buffer buffer) {
  // Chunks dropped on another thread are too rare to justify a lock.
  if (!loop_.isCurrent()) {
    return;
  }
  if (kept_.size() < limits::kKeptBuffers) {
    kept_.push_back(std::move(buffer));
  }
}

}  // namespace ostravel::linuxplatform
