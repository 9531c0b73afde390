#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <vector>

namespace ostravel::companion {

// Lends the buffers through which tunnels move bytes, so that a tunnel has one only while it holds
// bytes. Shared by all relays of one thread; a buffer that is not returned is merely freed.
class RelayBufferPool {
 public:
  // Size of one read: large enough that system calls do not dominate, small enough that thousands
  // of stalled tunnels fit in memory.
  static constexpr std::size_t kBufferSize = 64 * 1024;

  using Bytes = std::array<char, kBufferSize>;
  using Buffer = std::unique_ptr<Bytes>;

  Buffer acquire();
  void release(Buffer buffer);

 private:
  // Enough for the tunnels that move bytes at the same instant; further buffers are freed.
  static constexpr std::size_t kMostKept = 32;

  std::vector<Buffer> kept_;
};

}  // namespace ostravel::companion
