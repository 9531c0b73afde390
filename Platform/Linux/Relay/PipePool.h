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

// Pipes that bytes are spliced through (pipe(7), splice(2)). Owned by an event loop and used on its
// thread; a pipe may come back on any thread. Keeps a bounded number for reuse.
class PipePool {
 public:
  struct Pipe {
    FileDescriptor readEnd;
    FileDescriptor writeEnd;
    std::size_t capacity = 0;
    DescriptorBudget::Lease lease;
    // While it may hold bytes.
    MemoryBudget::Lease memory;
  };

  PipePool(const EventLoop& loop, DescriptorBudget& descriptors, MemoryBudget& memory)
      : loop_(loop), descriptors_(descriptors), memory_(memory) {}
  PipePool(const PipePool&) = delete;
  PipePool& operator=(const PipePool&) = delete;

  // An empty pipe for a stream of this user, who may be unknown (null). Absent when descriptors or
  // the user's part of the memory are used up, or when the kernel gives none of a useful size: the
  // bytes are then copied.
  std::optional<Pipe> take(const std::shared_ptr<UserShare>& user);
  // Only an empty pipe may come back; any other is to be destroyed.
  void giveBack(Pipe pipe);

  std::size_t keptCount() const { return kept_.size(); }

 private:
  std::optional<Pipe> open();

  const EventLoop& loop_;
  DescriptorBudget& descriptors_;
  MemoryBudget& memory_;
  std::vector<Pipe> kept_;
};

}  // namespace ostravel::linuxplatform
