#include "Base/PrintableText.h"

#include <array>
#include <cstdint>
#include <cstdio>

namespace ostravel::companion {
namespace {

std::uint8_t byteAt(std::string_view text, std::size_t index) {
  return static_cast<std::uint8_t>(text[index]);
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

CodePoint firstCodePoint(std::string_view text) {
  constexpr CodePoint kInvalid{0, 1, false};
  const std::uint8_t lead = byteAt(text, 0);
  if (lead < 0x80) {
    return {lead, 1, true};
  }
  const std::size_t size = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < size) {
    return kInvalid;
  }
  char32_t value = lead & (0xFFU >> (size + 1));
  for (std::size_t index = 1; index < size; ++index) {
    if ((byteAt(text, index) & 0xC0U) != 0x80U) {
      return kInvalid;
    }
    value = (value << 6U) | (byteAt(text, index) & 0x3FU);
  }
  // A longer form than needed could smuggle a control character past the checks.
  const bool overlong = (size == 3 && value < 0x800) || (size == 4 && value < 0x10000);
  const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
  if (overlong || surrogate || value > 0x10FFFF) {
    return kInvalid;
  }
  return {value, size, true};
}

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
  while (!text.empty()) {
    const CodePoint next = firstCodePoint(text);
    if (!next.valid) {
      appendEscape(result, "\\x%02x", byteAt(text, 0));
    } else if (disturbsTerminal(next.value)) {
      appendControl(result, next.value);
    } else if (next.value == U'\\') {
      result += "\\\\";
    } else {
      result.append(text.substr(0, next.size));
    }
    text.remove_prefix(next.size);
  }
  return result;
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

}  // namespace ostravel::companion
