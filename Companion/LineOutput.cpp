#include "Companion/LineOutput.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <string>

namespace ostravel::companion {

std::error_code LineOutput::writeLine(std::string_view line) const {
  std::string bytes(line);
  bytes += '\n';
  std::string_view rest = bytes;
  while (!rest.empty()) {
    // All waiting is done here and not in write, which a signal may end with a part written and
    // no word of the signal. Ready means room for PIPE_BUF bytes (pipe(7)): they go in one piece.
    pollfd wait{.fd = descriptor_, .events = POLLOUT, .revents = 0};
    if (::poll(&wait, 1, -1) < 0) {
      return {errno, std::system_category()};
    }
    const std::string_view piece = rest.substr(0, PIPE_BUF);
    const ssize_t written = ::write(descriptor_, piece.data(), piece.size());
    if (written >= 0) {
      rest.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EAGAIN) {
      return {errno, std::system_category()};
    }
  }
  return {};
}

}  // namespace ostravel::companion
