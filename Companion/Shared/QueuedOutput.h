#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

#include "Base/BackgroundWriter.h"

namespace ostravel::companion {

// Standard output or error of a companion: complete lines, each written at once, so that the reader
// of a pipe sees it immediately. A stalled reader never blocks the program: lines wait in a bounded
// buffer; when it is full, they are dropped and counted. Owned by the main function. The program
// must ignore SIGPIPE and end with _exit(2), as the writing thread may be stuck.
class QueuedOutput {
 public:
  struct Options {
    std::size_t capacity = BackgroundWriter::kUsualCapacity;
    // Makes the line that reports dropped lines in their place; empty for no such line.
    std::function<std::string(std::size_t count)> droppedLine;
    // Runs once, on the writing thread, when a line cannot be written. All further lines are lost.
    std::function<void()> failed = [] {};
  };

  // The descriptor remains the caller's. Throws std::system_error if the thread cannot be created.
  QueuedOutput(int descriptor, Options options);

  void writeLine(std::string_view line);

  // Waits until the remaining lines are written, for as long as the reader keeps reading: until
  // there has been no room for half a second, and five seconds at most.
  void flush();

  // Why lines cannot be written; empty while they can.
  std::error_code error() const;

 private:
  class Output;
  struct Status;

  const std::shared_ptr<Status> status_;
  BackgroundWriter writer_;
};

}  // namespace ostravel::companion
