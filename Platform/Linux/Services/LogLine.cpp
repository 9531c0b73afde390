#include "Platform/Linux/Services/LogLine.h"

#include <cstddef>

#include "Platform/Linux/Services/Utf8.h"

namespace ostravel::linuxplatform {

namespace {

void appendEscaped(std::string& line, std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    line += "\\x";
    line += kDigits[value >> 4U];
    line += kDigits[value & 0xfU];
  }
}

// The C0 and C1 controls and DEL (ISO 6429).
bool isControl(std::string_view character) {
  const auto first = static_cast<unsigned char>(character[0]);
  if (character.size() == 1) {
    return first < 0x20 || first == 0x7f;
  }
  return first == 0xc2 && static_cast<unsigned char>(character[1]) < 0xa0;
}

}  // namespace

std::string printable(std::string_view text) {
  std::string line;
  line.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = utf8CharacterLength(text);
    const std::string_view character = text.substr(0, length == 0 ? 1 : length);
    if (length == 0 || isControl(character)) {
      appendEscaped(line, character);
    } else {
      line += character;
    }
    text.remove_prefix(character.size());
  }
  return line;
}

std::string printableLogLine(std::string_view format,
                             std::span<const platform::LogArgument> arguments) {
  return printable(platform::formatLogLine(format, arguments));
}

std::string droppedLinesText(std::size_t count) {
  return "OstravelProxy: Log lines dropped count=" + std::to_string(count);
}

}  // namespace ostravel::linuxplatform
