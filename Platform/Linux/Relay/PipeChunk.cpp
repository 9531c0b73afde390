#include "Platform/Linux/Relay/PipeChunk.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace ostravel::linuxplatform {

PipeChunk::PipeChunk(PipePool& pool, PipePool::Pipe pipe, std::size_t size)
    : pool_(pool), pipe_(std::move(pipe)), size_(size), left_(size) {}

PipeChunk::~PipeChunk() = default;

std::span<const std::byte> PipeChunk::bytes() {
  if (pipe_ && left_ == size_) {
    bytes_.resize(size_);
    while (left_ > 0) {
      const auto count = ::read(pipe_->readEnd.get(), &bytes_[size_ - left_], left_);
      if (count > 0) {
        left_ -= static_cast<std::size_t>(count);
      } else if (count == 0 || errno != EINTR) {
        // Unreachable: nothing else reads the pipe.
        break;
      }
    }
    releaseIfEmpty();
  }
  return bytes_;
}

long PipeChunk::moveTo(int socket) {
  const auto count = ::splice(pipe_->readEnd.get(), nullptr, socket, nullptr, left_,
                              SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
  if (count > 0) {
    left_ -= static_cast<std::size_t>(count);
    releaseIfEmpty();
  }
  return count;
}

void PipeChunk::releaseIfEmpty() {
  if (left_ == 0) {
    pool_.release(*std::exchange(pipe_, std::nullopt));
  }
}

}  // namespace ostravel::linuxplatform
