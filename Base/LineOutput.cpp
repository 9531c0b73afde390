#include "Base/LineOutput.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace ostravel {

namespace {

// Ends at the end of a line if possible.
std::string_view firstPiece(std::string_view lines) {
  std::string_view piece = lines.substr(0, PIPE_BUF);
  const auto end = piece.rfind('\n');
  return end == std::string_view::npos ? piece : piece.substr(0, end + 1);
}

}  // namespace

LineOutput::Piece LineOutput::writePiece(std::string_view lines,
                                         std::chrono::milliseconds patience) const noexcept {
  pollfd wait{.fd = descriptor_, .events = POLLOUT, .revents = 0};
  if (::poll(&wait, 1, static_cast<int>(patience.count())) != 1) {
    return {};
  }
  const std::string_view piece = firstPiece(lines);
  const ssize_t written = ::write(descriptor_, piece.data(), piece.size());
  if (written >= 0) {
    return {.size = static_cast<std::size_t>(written)};
  }
  if (errno == EAGAIN || errno == EINTR) {
    return {};
  }
  return {.size = piece.size(), .error = errno};
}

std::error_code LineOutput::writeAll(std::string_view lines,
                                     std::chrono::milliseconds patience) const {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!lines.empty()) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() < 0) {
      return std::make_error_code(std::errc::timed_out);
    }
    const Piece piece = writePiece(lines, left);
    if (piece.error != 0) {
      return {piece.error, std::generic_category()};
    }
    lines.remove_prefix(piece.size);
  }
  return {};
}

}  // namespace ostravel
