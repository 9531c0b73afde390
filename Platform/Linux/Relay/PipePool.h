#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Services/DescriptorBudget.h"
#include "Platform/Linux/Services/MemoryBudget.h"

namespace ostravel::linuxplatform {

class EventLoop;

// Pipes for splicing bytes (pipe(7), splice(2)). Owned by an event loop and used on its thread; a
// pipe may be returned on any thread. Keeps a bounded number for reuse.
class PipePool {
 public:
  struct Pipe {
    FileDescriptor readEnd;
    FileDescriptor writeEnd;
    std::size_t capacity = 0;
    DescriptorBudget::Lease lease;
    // Held while the pipe may contain bytes.
    MemoryBudget::Lease memory;
  };

  PipePool(const EventLoop& loop, DescriptorBudget& descriptors, MemoryBudget& memory)
      : loop_(loop), descriptors_(descriptors), memory_(memory) {}
  PipePool(const PipePool&) = delete;
  PipePool& operator=(const PipePool&) = delete;

  // An empty pipe for a stream of this user (null if unknown). Empty if descriptors or the user's
  // share of memory are used up, or the kernel provides only a small pipe: the bytes are then
  // copied.
  std::optional<Pipe> take(const Reference<UserShare>& user);
  // Only an empty pipe may be returned; destroy any other.
  void release(Pipe pipe);

 private:
  friend class EventLoopTestPeer;

  std::optional<Pipe> open();

  const EventLoop& loop_;
  DescriptorBudget& descriptors_;
  MemoryBudget& memory_;
  std::vector<Pipe> kept_;
};

}  // namespace ostravel::linuxplatform
