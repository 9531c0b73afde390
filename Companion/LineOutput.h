#pragma once

#include <string_view>
#include <system_error>

namespace ostravel::companion {

// Writes whole lines to a descriptor it does not own, each at once: whoever reads along sees every
// line as soon as it is written, also through a pipe. The program must ignore SIGPIPE.
class LineOutput {
 public:
  explicit LineOutput(int descriptor) : descriptor_(descriptor) {}

  // Writes `line` and a line feed, waiting while the reader is slow. Fails with broken_pipe when
  // the reader is gone and with interrupted when a signal asks the program to end meanwhile.
  std::error_code writeLine(std::string_view line) const;

 private:
  int descriptor_;
};

}  // namespace ostravel::companion
