#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace ostravel::testing {

// A program under test and its output. Killed with this object at the latest. Every operation that
// waits throws std::runtime_error when nothing happens for a long time.
class ChildProcess {
 public:
  struct Options {
    std::optional<rlim_t> softDescriptorLimit = std::nullopt;
    std::optional<rlim_t> hardDescriptorLimit = std::nullopt;
    std::optional<int> output = std::nullopt;   // standard output instead of a pipe of ours
    std::vector<std::string> environment = {};  // NAME=VALUE, added; NAME alone, removed
  };

  explicit ChildProcess(std::vector<std::string> command) : ChildProcess(command, Options()) {}
  ChildProcess(const std::vector<std::string>& command, const Options& options);
  ~ChildProcess();

  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // The next line of standard output or error, without its line feed; "" at the end.
  std::string readOutputLine() { return readLine(output_); }
  std::string readErrorLine() { return readLine(error_); }
  // Everything else, to the end.
  std::string readOutput() { return readToEnd(output_); }
  std::string readError() { return readToEnd(error_); }
  // Waits until there is some output, and leaves it unread.
  void waitForOutput() const;
  void closeOutput();
  // Reads and discards the rest of standard error from now on, so that a program that writes much
  // never waits for a reader.
  void discardError();

  void sendSignal(int number) const;
  // Stops it (SIGSTOP), and returns when all of its threads have stopped.
  void suspend() const;
  // The exit status, or 128 and the number of the signal that ended it.
  int waitForExit();
  // The processor time that it has used so far, in clock ticks.
  long processorTicks() const;

 private:
  struct Stream {
    int descriptor = -1;
    std::string unread = {};
  };

  static bool fill(Stream& stream);
  static std::string readLine(Stream& stream);
  static std::string readToEnd(Stream& stream);

  pid_t process_ = -1;
  Stream output_;
  Stream error_;
  std::thread discarding_;
};

}  // namespace ostravel::testing
