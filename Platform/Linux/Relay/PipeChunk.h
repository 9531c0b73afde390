#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "Platform/Interface/Data.h"
#include "Platform/Linux/Relay/PipePool.h"

namespace ostravel::linuxplatform {

// A chunk in a pipe: it stays in the kernel until its bytes are requested. The pipe returns to its
// pool as soon as it is empty, and is closed if the chunk is destroyed before that.
class PipeChunk final : public platform::Data::Storage {
 public:
  // pipe holds exactly size bytes.
  PipeChunk(PipePool& pool, PipePool::Pipe pipe, std::size_t size);
  ~PipeChunk() override;

  std::size_t size() const noexcept override { return size_; }
  // Reads the whole pipe into memory. Not allowed after moveTo() has moved part of it.
  std::span<const std::byte> bytes() override;

  // True while any of the bytes are still in the pipe.
  bool isInPipe() const { return pipe_.has_value(); }
  // Moves bytes to a socket without blocking; returns how many, or -1 with errno. splice(2) has no
  // MSG_NOSIGNAL, so the calling thread must have SIGPIPE blocked or ignored.
  long moveTo(int socket);

 private:
  void releaseIfEmpty();

  PipePool& pool_;
  std::optional<PipePool::Pipe> pipe_;
  std::size_t size_;
  std::size_t left_;
  std::vector<std::byte> bytes_;
};

}  // namespace ostravel::linuxplatform
