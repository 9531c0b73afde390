#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace ostravel::linuxplatform {

// Finds registered paths under which no process can run, because no file exists or a symbolic link
// leads elsewhere. A file system that does not answer costs only the wait: a separate thread asks,
// and is abandoned.
class RegisteredPaths {
 public:
  // Enough for any disk, and short enough for an administrator who waits for a reload.
  static constexpr std::chrono::seconds kPatience{1};

  // The problem with each of these absolute paths, in their order, as a sentence without its
  // subject; empty if a process can run under the path. Waits for at most patience in total.
  static std::vector<std::optional<std::string>> problemsWith(
      const std::vector<std::string>& paths, std::chrono::milliseconds patience = kPatience);
};

}  // namespace ostravel::linuxplatform
