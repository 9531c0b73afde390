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

// Standard output or error of a companion: whole lines, each written at once, so that a reader of a
// pipe sees it immediately. A stalled reader never blocks the program: lines wait in a bounded
// buffer; when it is full, they are dropped and counted. Owned by the main function.
// The program must ignore SIGPIPE and leave by _exit(2), as the writing thread can be stuck.
class QueuedOutput {
 public:
  struct Options {
    std::size_t capacity = BackgroundWriter::kUsualCapacity;
    // Makes the line that says how many are missing, at the place where they are; empty for none.
    std::function<std::string(std::size_t count)> droppedLine;
    // Runs once, on the writing thread, when a line cannot be written. All lines are lost then.
    std::function<void()> failed = [] {};
  };

  // The descriptor stays the caller's. Throws std::system_error when there can be no thread.
  QueuedOutput(int descriptor, Options options);

  void writeLine(std::string_view line);

  // Gives a reader half a second at most to take what is left.
  void flush();

  // Why lines cannot be written; none as long as they can.
  std::error_code error() const;

 private:
  class Output;
  struct Status;

  const std::shared_ptr<Status> status_;
  BackgroundWriter writer_;
};

}  // namespace ostravel::companion
