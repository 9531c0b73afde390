#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

namespace ostravel::testing {

// A running helper program. Killed, and waited for, with the object.
class Helper {
 public:
  // inChild runs in the new process before the program starts; false makes the start fail.
  explicit Helper(
      const std::string& program = OSTRAVEL_HELPER,
      const std::function<bool()>& inChild = [] { return true; });
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;
  ~Helper() { kill(); }

  pid_t pid() const { return pid_; }

  // Sends one line and returns the answer.
  std::string ask(const std::string& line);
  // For the commands that make a socket: its port; 0 when that failed.
  std::uint16_t makeSocket(const std::string& command, std::uint16_t port);

  // The process is gone, and nothing is left of it, when this returns.
  void kill();

 private:
  std::string readLine();

  pid_t pid_ = 0;
  int toHelper_ = -1;
  int fromHelper_ = -1;
};

}  // namespace ostravel::testing
