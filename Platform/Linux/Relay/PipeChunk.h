#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "Platform/Interface/Data.h"
#include "Platform/Linux/Relay/PipePool.h"

namespace ostravel::linuxplatform {

// A chunk in a pipe: it stays in the kernel unless somebody asks for the bytes. The pipe goes back
// to its pool as soon as it is empty, and is closed if the chunk ends before that.
class PipeChunk final : public platform::Data::Storage {
 public:
  // pipe holds exactly size bytes.
  PipeChunk(PipePool& pool, PipePool::Pipe pipe, std::size_t size);
  ~PipeChunk() override;

  std::size_t size() const noexcept override { return size_; }
  // Reads the pipe out, if nothing of it was moved yet; a chunk that was is not asked.
  std::span<const std::byte> bytes() override;

  // Whether the bytes are still in the pipe, all or in part.
  bool isInPipe() const { return pipe_.has_value(); }
  // Moves bytes on into a socket without waiting: how many, or -1 with errno. splice(2) knows no
  // MSG_NOSIGNAL, so the calling thread must have SIGPIPE blocked or ignored.
  long moveTo(int socket);

 private:
  void giveBackIfEmpty();

  PipePool& pool_;
  std::optional<PipePool::Pipe> pipe_;
  std::size_t size_;
  std::size_t left_;
  std::vector<std::byte> bytes_;
};

}  // namespace ostravel::linuxplatform
