#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "Platform/Linux/DescriptorBudget.h"
#include "Platform/Linux/FileDescriptor.h"

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
  };

  PipePool(const EventLoop& loop, DescriptorBudget& descriptors)
      : loop_(loop), descriptors_(descriptors) {}
  PipePool(const PipePool&) = delete;
  PipePool& operator=(const PipePool&) = delete;

  // An empty pipe. Absent when descriptors are scarce or the kernel gives none of a useful size:
  // the bytes are then copied.
  std::optional<Pipe> take();
  // Only an empty pipe may come back; any other is to be destroyed.
  void giveBack(Pipe pipe);

  std::size_t keptCount() const { return kept_.size(); }

 private:
  std::optional<Pipe> open();

  const EventLoop& loop_;
  DescriptorBudget& descriptors_;
  std::vector<Pipe> kept_;
};

}  // namespace ostravel::linuxplatform
