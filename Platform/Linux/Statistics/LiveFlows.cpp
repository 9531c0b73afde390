#include "Platform/Linux/Statistics/LiveFlows.h"

#include <utility>

namespace ostravel::linuxplatform {

LiveFlows::~LiveFlows() {
  for (auto& place : chunks_) {
    const std::unique_ptr<Chunk> chunk(place.load());
    if (chunk) {
      for (auto& record : chunk->records) {
        static_cast<void>(Reference<FlowRecord>::adopt(record.load()));
      }
    }
  }
}

void LiveFlows::add(Reference<FlowRecord> record) {
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
  chunk.records[place % kSlotsPerChunk].store(record.detach());
}

void LiveFlows::sweep(std::size_t places, std::vector<Reference<FlowRecord>>& ended) {
  const std::size_t count = chunkCount_.load(std::memory_order_relaxed) * kSlotsPerChunk;
  for (std::size_t looked = 0; looked < places && looked < count; ++looked) {
    next_ = next_ + 1 < count ? next_ + 1 : 0;
    Chunk& chunk = *chunks_[next_ / kSlotsPerChunk].load(std::memory_order_relaxed);
    auto& place = chunk.records[next_ % kSlotsPerChunk];
    FlowRecord* const record = place.load(std::memory_order_relaxed);
    if (record != nullptr && record->hasEnded()) {
      place.store(nullptr);
      ended.push_back(Reference<FlowRecord>::adopt(record));
      free_.push_back(next_);
    }
  }
}

std::vector<const FlowRecord*> LiveFlows::all() const {
  std::vector<const FlowRecord*> records;
  const std::size_t count = chunkCount_.load(std::memory_order_acquire);
  for (std::size_t index = 0; index < count; ++index) {
    for (const auto& place : chunks_[index].load(std::memory_order_relaxed)->records) {
      if (const FlowRecord* const record = place.load(); record != nullptr) {
        records.push_back(record);
      }
    }
  }
  return records;
}

}  // namespace ostravel::linuxplatform
