#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::testing {

// A running helper program. Destruction kills it and waits for it.
class Helper {
 public:
  // inChild runs in the new process before the program starts; returning false makes the start
  // fail.
  explicit Helper(
      const std::string& program = OSTRAVEL_HELPER,
      const std::function<bool()>& inChild = [] { return true; });
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;
  ~Helper() { kill(); }

  pid_t pid() const { return pid_; }

  // Sends one line and returns the answer.
  std::string ask(const std::string& line);
  // For commands that create a socket: returns its port, or 0 on failure.
  std::uint16_t makeSocket(const std::string& command, std::uint16_t port);

  // Returns when the process has ended and been reaped.
  void kill();

 private:
  std::string readLine();

  pid_t pid_ = 0;
  int toHelper_ = -1;
  int fromHelper_ = -1;
};

// Process numbers start again from small ones at a limit. If that is near, uses up those before it,
// so that for hundreds of processes a newer one has a higher number.
void makeProcessNumbersRise();

// New processes with more descriptors than can be scanned for one flow.
std::vector<std::unique_ptr<Helper>> makeCrowd();

// A copy of the helper program under another name; returns its path.
std::string copyHelper(const TemporaryFolder& folder, std::string_view name);

}  // namespace ostravel::testing
