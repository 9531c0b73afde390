#include "Companion/Monitor/EventLine.h"

#include <string_view>

#include "Base/PrintableText.h"
#include "Base/UTF8.h"
#include "Companion/Shared/TimeText.h"

namespace ostravel::companion {
namespace {

// Wide enough to keep the columns aligned for frequent signals and usual applications.
constexpr std::size_t kLevelWidth = 5;
constexpr std::size_t kSignalWidth = 29;
constexpr std::size_t kAppWidth = 26;

// ECMA-48, section 8.3.117.
constexpr std::string_view kRed = "\x1b[31m";
constexpr std::string_view kGreen = "\x1b[32m";
constexpr std::string_view kYellow = "\x1b[33m";
constexpr std::string_view kPlain = "\x1b[0m";

std::string padded(std::string text, std::size_t width) {
  std::size_t characters = 0;
  for (std::string_view rest = text; !rest.empty(); rest.remove_prefix(firstCodePoint(rest).size)) {
    ++characters;
  }
  if (characters < width) {
    text.append(width - characters, ' ');
  }
  return text;
}

std::string_view colourOf(std::string_view level) {
  if (level == "error") {
    return kRed;
  }
  return level == "info" ? kGreen : kYellow;
}

std::string levelColumn(const ReceivedEvent& event, Colour colour) {
  // Padded first: the escapes take no room on the screen.
  std::string column = padded(printableText(event.level), kLevelWidth);
  if (colour == Colour::terminal) {
    column.insert(0, colourOf(event.level));
    column += kPlain;
  }
  return column;
}

}  // namespace

std::string eventLine(const ReceivedEvent& event, Colour colour) {
  const std::string app = event.appId.empty() ? "-" : printableText(event.appId);
  std::string line = timeOfDay(event.timestamp) + " " + levelColumn(event, colour) + " " +
                     padded(printableText(event.signal), kSignalWidth) + " " +
                     padded(app, kAppWidth) + " ";
  // Last, because it repeats what the signal says: a narrow screen cuts it off first.
  for (const auto& [key, value] : event.details) {
    line += printableText(key) + "=" + printableValue(value) + " ";
  }
  return line + (event.details.empty() ? "" : " ") + printableText(event.message);
}

}  // namespace ostravel::companion
