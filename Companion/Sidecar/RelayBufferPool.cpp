#include "Companion/Sidecar/RelayBufferPool.h"

#include <utility>

namespace ostravel::companion {

RelayBufferPool::Buffer RelayBufferPool::acquire() {
  if (kept_.empty()) {
    return std::make_unique_for_overwrite<Bytes>();
  }
  Buffer buffer = std::move(kept_.back());
  kept_.pop_back();
  return buffer;
}

void RelayBufferPool::release(Buffer buffer) {
  if (buffer && kept_.size() < kMostKept) {
    kept_.push_back(std::move(buffer));
  }
}

}  // namespace ostravel::companion
