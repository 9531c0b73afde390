#pragma once

#include <chrono>
#include <cstddef>
#include <string_view>
#include <system_error>

namespace ostravel {

// Writes complete lines to a descriptor that it does not own and to which other programs may write
// as well. It therefore does not set O_NONBLOCK, which would affect all of them, but waits in
// poll(2). The program must ignore SIGPIPE. Usable from any thread.
class LineOutput {
 public:
  explicit LineOutput(int descriptor) : descriptor_(descriptor) {}

  struct Piece {
    // How many bytes have been written, or are lost if there is an error. 0 if there was no room in
    // time.
    std::size_t size = 0;
    // An errno, or 0.
    int error = 0;
  };

  // Waits for room, then writes the first lines, as many as a pipe accepts atomically (PIPE_BUF
  // bytes, pipe(7)), or a part of a longer line. Async-signal-safe. Can still block if another
  // process uses up the room first.
  Piece writePiece(std::string_view lines, std::chrono::milliseconds patience) const noexcept;

  // Writes all of the lines. Fails with timed_out if there is no room for longer than patience, or
  // with the system's error.
  std::error_code writeAll(std::string_view lines, std::chrono::milliseconds patience) const;

 private:
  int descriptor_;
};

}  // namespace ostravel
