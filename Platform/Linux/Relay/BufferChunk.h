#pragma once

#include <cstddef>
#include <span>
#include <utility>

#include "Platform/Interface/Data.h"
#include "Platform/Linux/Relay/BufferPool.h"
#include "Platform/Linux/Services/MemoryBudget.h"

namespace ostravel::linuxplatform {

// A chunk in a pooled buffer, which it returns to the pool.
class BufferChunk final : public platform::Data::Storage {
 public:
  // memory: the buffer's share of the budget.
  BufferChunk(BufferPool& pool, BufferPool::Buffer buffer, std::size_t size,
              MemoryBudget::Lease memory)
      : pool_(pool), buffer_(std::move(buffer)), size_(size), memory_(std::move(memory)) {}
  ~BufferChunk() override { pool_.release(std::move(buffer_)); }

  std::size_t size() const noexcept override { return size_; }
  std::span<const std::byte> bytes() override { return {buffer_.get(), size_}; }

 private:
  BufferPool& pool_;
  BufferPool::Buffer buffer_;
  std::size_t size_;
  MemoryBudget::Lease memory_;
};

}  // namespace ostravel::linuxplatform
