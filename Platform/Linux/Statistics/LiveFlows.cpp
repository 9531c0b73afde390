#include "Platform/Linux/Statistics/LiveFlows.h"

#include <utility>

namespace ostravel::linuxplatform {

LiveFlows::~LiveFlows() {
  for (auto& chunk : chunks_) {
    delete chunk.load();
  }
}

void LiveFlows::add(std::shared_ptr<FlowRecord> record) {
  if (free_.empty()) {
    const std::size_t count = chunkCount_.load(std::memory_order_relaxed);
    if (count == kMaximumChunks) {
      return;
    }
    chunks_[count].store(new Chunk, std::memory_order_relaxed);
    chunkCount_.store(count + 1, std::memory_order_release);
    for (std::size_t slot = kSlotsPerChunk; slot > 0; --slot) {
      free_.push_back(count * kSlotsPerChunk + slot - 1);
    }
  }
  const std::size_t place = free_.back();
  free_.pop_back();
  Chunk& chunk = *chunks_[place / kSlotsPerChunk].load(std::memory_order_relaxed);
  chunk.visible[place % kSlotsPerChunk].store(record.get());
  chunk.owned[place % kSlotsPerChunk] = std::move(record);
}

void LiveFlows::sweep(std::size_t places, std::vector<std::shared_ptr<FlowRecord>>& ended) {
  const std::size_t count = chunkCount_.load(std::memory_order_relaxed) * kSlotsPerChunk;
  for (std::size_t looked = 0; looked < places && looked < count; ++looked) {
    next_ = next_ + 1 < count ? next_ + 1 : 0;
    Chunk& chunk = *chunks_[next_ / kSlotsPerChunk].load(std::memory_order_relaxed);
    auto& owned = chunk.owned[next_ % kSlotsPerChunk];
    if (owned && owned->hasEnded()) {
      chunk.visible[next_ % kSlotsPerChunk].store(nullptr);
      ended.push_back(std::move(owned));
      free_.push_back(next_);
    }
  }
}

std::vector<const FlowRecord*> LiveFlows::all() const {
  std::vector<const FlowRecord*> records;
  const std::size_t count = chunkCount_.load(std::memory_order_acquire);
  for (std::size_t index = 0; index < count; ++index) {
    for (const auto& visible : chunks_[index].load(std::memory_order_relaxed)->visible) {
      if (const FlowRecord* const record = visible.load(); record != nullptr) {
        records.push_back(record);
      }
    }
  }
  return records;
}

}  // namespace ostravel::linuxplatform
