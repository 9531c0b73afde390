#include "Base/PrintableText.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

#include "Base/UTF8.h"

namespace ostravel {
namespace {

// How many characters from the beginning on are written as they are, apart from those beyond ASCII:
// in most texts all of them.
std::size_t plainSize(std::string_view text) {
  const auto isPlain = [](char character) {
    return character >= ' ' && character < '\x7F' && character != '\\';
  };
  return static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), isPlain) -
                                  text.begin());
}

void appendEscape(std::string& result, const char* format, unsigned value) {
  std::array<char, 16> escape{};
  const int size = std::snprintf(escape.data(), escape.size(), format, value);
  result.append(escape.data(), static_cast<std::size_t>(size));
}

void appendControl(std::string& result, char32_t codePoint) {
  switch (codePoint) {
    case U'\n':
      result += "\\n";
      break;
    case U'\r':
      result += "\\r";
      break;
    case U'\t':
      result += "\\t";
      break;
    default:
      appendEscape(result, codePoint < 0x80 ? "\\x%02x" : "\\u%04x",
                   static_cast<unsigned>(codePoint));
  }
}

}  // namespace

bool disturbsTerminal(char32_t codePoint) {
  const bool control = codePoint < 0x20 || (codePoint >= 0x7F && codePoint <= 0x9F);
  const bool separatesLines = codePoint == 0x2028 || codePoint == 0x2029;
  const bool turnsDirection = codePoint == 0x061C || codePoint == 0x200E || codePoint == 0x200F ||
                              (codePoint >= 0x202A && codePoint <= 0x202E) ||
                              (codePoint >= 0x2066 && codePoint <= 0x2069);
  return control || separatesLines || turnsDirection;
}

std::string printableText(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  while (true) {
    const std::size_t plain = plainSize(text);
    result.append(text.substr(0, plain));
    text.remove_prefix(plain);
    if (text.empty()) {
      return result;
    }
    const CodePoint next = firstCodePoint(text);
    if (!next.valid) {
      appendEscape(result, "\\x%02x", static_cast<std::uint8_t>(text.front()));
    } else if (disturbsTerminal(next.value)) {
      appendControl(result, next.value);
    } else if (next.value == U'\\') {
      result += "\\\\";
    } else {
      result.append(text.substr(0, next.size));
    }
    text.remove_prefix(next.size);
  }
}

std::string printableValue(std::string_view value) {
  const std::string plain = printableText(value);
  if (!plain.empty() && plain.find_first_of(" \"=") == std::string::npos) {
    return plain;
  }
  std::string quoted = "\"";
  for (const char character : plain) {
    if (character == '"') {
      quoted += '\\';
    }
    quoted += character;
  }
  quoted += '"';
  return quoted;
}

}  // namespace ostravel
