#include "Platform/Linux/Services/LogLine.h"

#include <cstddef>

#include "Base/UTF8.h"

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
bool isControl(char32_t codePoint) {
  return codePoint < 0x20 || (codePoint >= 0x7f && codePoint < 0xa0);
}

}  // namespace

std::string printable(std::string_view text) {
  std::string line;
  line.reserve(text.size());
  while (!text.empty()) {
    const CodePoint next = firstCodePoint(text);
    const std::string_view character = text.substr(0, next.size);
    if (!next.valid || isControl(next.value)) {
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
