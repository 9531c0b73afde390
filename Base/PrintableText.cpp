#include "Base/PrintableText.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "Base/UTF8.h"

namespace ostravel {
namespace {

constexpr std::size_t kWordSize = sizeof(std::uint64_t);

constexpr std::uint64_t everyByte(char character) {
  return 0x0101010101010101U * static_cast<unsigned char>(character);
}

bool isPlain(char character) {
  return character >= ' ' && character < '\x7F' && character != '\\';
}

// True if isPlain() is, for each byte of a word. Each term has the highest bit of a byte that is
// not plain; carries and borrows come only from such bytes.
bool isPlainWord(const char* bytes) {
  constexpr std::uint64_t kHighBits = everyByte('\x80');
  std::uint64_t word = 0;
  std::memcpy(&word, bytes, kWordSize);
  const std::uint64_t low = word - everyByte(' ');
  const std::uint64_t high = word + everyByte('\x01');
  const std::uint64_t backslashes = (word ^ everyByte('\\')) - everyByte('\x01');
  return ((word | low | high | backslashes) & kHighBits) == 0;
}

// How many characters from the beginning on are written as they are, apart from those beyond ASCII:
// in most texts all of them.
std::size_t plainSize(std::string_view text) {
  std::size_t size = 0;
  while (text.size() - size >= kWordSize && isPlainWord(text.data() + size)) {
    size += kWordSize;
  }
  const auto* const rest = text.begin() + size;
  return size + static_cast<std::size_t>(std::find_if_not(rest, text.end(), isPlain) - rest);
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
  appendPrintableText(result, text);
  return result;
}

void appendPrintableText(std::string& result, std::string_view text) {
  while (true) {
    const std::size_t plain = plainSize(text);
    result.append(text.substr(0, plain));
    text.remove_prefix(plain);
    if (text.empty()) {
      return;
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
