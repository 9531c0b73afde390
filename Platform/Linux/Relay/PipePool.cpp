#include "Platform/Linux/Relay/PipePool.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "Platform/Linux/Relay/EventLoop.h"
#include "Platform/Linux/Services/RelayLimits.h"

namespace ostravel::linuxplatform {

std::optional<PipePool::Pipe> PipePool::take(const Reference<UserShare>& user) {
  if (!memory_.permits(user, limits::kMaximumChunk)) {
    return std::nullopt;
  }
  std::optional<Pipe> pipe;
  if (kept_.empty()) {
    pipe = open();
  } else {
    pipe = std::move(kept_.back());
    kept_.pop_back();
  }
  if (pipe) {
    pipe->lease.chargeTo(user);
    pipe->memory = MemoryBudget::Lease(memory_, limits::kMaximumChunk, user);
  }
  return pipe;
}

void PipePool::release(Pipe pipe) {
  pipe.memory = MemoryBudget::Lease();
  pipe.lease.chargeTo(nullptr);
  if (loop_.isCurrent() && kept_.size() < limits::kKeptPipes) {
    kept_.push_back(std::move(pipe));
  }
}

std::optional<PipePool::Pipe> PipePool::open() {
  if (descriptors_.nearLimit()) {
    return std::nullopt;
  }
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
    return std::nullopt;
  }
  Pipe pipe{FileDescriptor(ends[0]), FileDescriptor(ends[1]), 0, descriptors_.lease(2), {}};
  // EPERM: the user's limit on pipe memory is reached; the pipe keeps its size.
  ::fcntl(ends[1], F_SETPIPE_SZ, limits::kPipeSize);
  const int capacity = ::fcntl(ends[1], F_GETPIPE_SZ);
  if (capacity < limits::kSmallestUsefulPipe) {
    return std::nullopt;
  }
  pipe.capacity = static_cast<std::size_t>(capacity);
  return pipe;
}

}  // namespace ostravel::linuxplatform
