#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Platform/Linux/Statistics/FlowRecord.h"

namespace ostravel::linuxplatform {

// The flows that were taken and have not ended. Part of the journal, whose rules apply: one thread
// adds and sweeps, another one may read at the same time, without a lock.
class LiveFlows {
 public:
  // Room for as many tunnels as the largest reasonable descriptor limit permits; further ones are
  // counted but not listed.
  static constexpr std::size_t kSlotsPerChunk = 256;
  static constexpr std::size_t kMaximumChunks = 1024;

  LiveFlows() = default;
  LiveFlows(const LiveFlows&) = delete;
  LiveFlows& operator=(const LiveFlows&) = delete;
  ~LiveFlows();

  // For the writer.
  void add(Reference<FlowRecord> record);
  // Examines this many slots, round robin, and appends the flows that have ended, which a reader
  // may still see.
  void sweep(std::size_t places, std::vector<Reference<FlowRecord>>& ended);

  // For the reader: all of them, unordered.
  std::vector<const FlowRecord*> all() const;

 private:
  struct Chunk {
    // Each owns its record.
    std::array<std::atomic<FlowRecord*>, kSlotsPerChunk> records{};
  };

  std::array<std::atomic<Chunk*>, kMaximumChunks> chunks_{};
  std::atomic<std::size_t> chunkCount_ = 0;
  // The writer's.
  std::vector<std::size_t> free_;
  std::size_t next_ = 0;
};

}  // namespace ostravel::linuxplatform
