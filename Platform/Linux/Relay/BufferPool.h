#pragma once

#include <cstddef>
#include <memory>
#include <vector>

namespace ostravel::linuxplatform {

class EventLoop;

// Buffers for receiving, limits::kBufferSize bytes each. Owned by an event loop and used on its
// thread; a buffer may be returned on any thread. Keeps a bounded number for reuse.
class BufferPool {
 public:
  using Buffer = std::unique_ptr<std::byte[]>;

  explicit BufferPool(const EventLoop& loop) : loop_(loop) {}
  BufferPool(const BufferPool&) = delete;
  BufferPool& operator=(const BufferPool&) = delete;

  Buffer take();
  void release(Buffer buffer);

 private:
  friend class EventLoopTestPeer;

  const EventLoop& loop_;
  std::vector<Buffer> kept_;
};

}  // namespace ostravel::linuxplatform
