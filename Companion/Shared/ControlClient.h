#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <variant>

#include "Base/JSONHandle.h"

namespace ostravel::companion {

// Sends requests to the extension's control socket (Documentation/control.md). One connection per
// request, so it has no state between them; usable from any thread. Blocks its caller until the
// deadline at most.
class ControlClient {
 public:
  static constexpr std::string_view kDefaultPath = "/run/ostravel/control.sock";

  // Longer answers are refused. A thousand times the size of a status, and enough for ten thousand
  // tunnels.
  static constexpr std::size_t kLongestAnswer = std::size_t{16} * 1024 * 1024;

  // Why there is no result.
  struct Failure {
    // The code in the answer's error, or one of this class: "not_running" (no socket, or no
    // listener), "not_permitted" (the socket's mode), "timeout", "no_answer" (closed without one)
    // and "bad_answer".
    std::string code;
    // A readable sentence, without the name of the program.
    std::string message;
  };

  // The answer's object "result", never null.
  using Answer = std::variant<JSONHandle, Failure>;
  using Deadline = std::chrono::steady_clock::time_point;

  explicit ControlClient(std::string path = std::string(kDefaultPath)) : path_(std::move(path)) {}

  const std::string& path() const { return path_; }

  // `request` is an object without "version", which is added: {"request": "status"}.
  Answer ask(JSONHandle request, Deadline deadline) const;

  // A request without further members, such as "status".
  Answer ask(std::string_view request, Deadline deadline) const;

 private:
  std::string path_;
};

}  // namespace ostravel::companion
