#include "Companion/Shared/ColumnText.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

#include "Base/UTF8.h"

namespace ostravel::companion {
namespace {

constexpr std::size_t kShortestApplication = 8;
constexpr std::string_view kEllipsis = "…";

std::string_view lastColumns(std::string_view text, std::size_t columns) {
  std::string_view rest = text;
  for (; columns > 0 && !rest.empty(); --columns) {
    rest.remove_suffix(lastCodePoint(rest).size);
  }
  return text.substr(rest.size());
}

}  // namespace

std::size_t columnsOf(std::string_view text) {
  std::size_t characters = 0;
  for (; !text.empty(); text.remove_prefix(firstCodePoint(text).size)) {
    ++characters;
  }
  return characters;
}

std::string padded(std::string text, std::size_t width) {
  const std::size_t columns = columnsOf(text);
  if (columns < width) {
    text.append(width - columns, ' ');
  }
  return text;
}

std::string withoutTrailingBlanks(std::string line) {
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

std::string_view firstColumns(std::string_view text, std::size_t columns) {
  std::string_view rest = text;
  for (; columns > 0 && !rest.empty(); --columns) {
    rest.remove_prefix(firstCodePoint(rest).size);
  }
  return text.substr(0, text.size() - rest.size());
}

std::string cutAtEnd(std::string_view text, std::size_t width) {
  if (columnsOf(text) <= width) {
    return std::string(text);
  }
  return width == 0 ? "" : std::string(firstColumns(text, width - 1)) + std::string(kEllipsis);
}

std::string cutAtBeginning(std::string_view text, std::size_t width) {
  if (columnsOf(text) <= width) {
    return std::string(text);
  }
  return width == 0 ? "" : std::string(kEllipsis) + std::string(lastColumns(text, width - 1));
}

std::string_view lastPathComponent(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos || slash + 1 == path.size() ? path
                                                                     : path.substr(slash + 1);
}

std::size_t applicationWidthIn(std::size_t room) {
  const std::size_t width = room > kDestinationWidth ? room - kDestinationWidth : 0;
  return std::clamp(width, kShortestApplication, kApplicationWidth);
}

std::size_t widthOfOutput() {
  winsize size{};
  return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

}  // namespace ostravel::companion
