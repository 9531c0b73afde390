#include "Base/CompactJSON.h"

#include <array>
#include <cstdio>

#include "Base/PrintableText.h"
#include "Base/UTF8.h"

namespace ostravel {
namespace {

void appendUnicodeEscape(std::string& result, char32_t codePoint) {
  // Four digits are enough: every code point that disturbs a terminal is below U+10000.
  std::array<char, 8> escape{};
  std::snprintf(escape.data(), escape.size(), "\\u%04x",
                static_cast<unsigned>(codePoint) & 0xFFFFU);
  result += escape.data();
}

bool isWhiteSpace(char character) {
  return character == ' ' || character == '\t' || character == '\n' || character == '\r';
}

// Moves one character of a string, or one escape, from the front of `json` to `result`.
void moveStringElement(std::string_view& json, std::string& result) {
  if (json.front() == '\\' && json.size() > 1) {
    result += json[1] == '/' ? json.substr(1, 1) : json.substr(0, 2);
    json.remove_prefix(2);
    return;
  }
  const CodePoint next = firstCodePoint(json);
  if (disturbsTerminal(next.value)) {
    appendUnicodeEscape(result, next.value);
  } else {
    result += json.substr(0, next.size);
  }
  json.remove_prefix(next.size);
}

}  // namespace

std::string compactJSON(std::string_view json) {
  std::string result;
  result.reserve(json.size());
  bool inString = false;
  while (!json.empty()) {
    const char character = json.front();
    if (character == '"') {
      inString = !inString;
    } else if (inString) {
      moveStringElement(json, result);
      continue;
    }
    if (!isWhiteSpace(character)) {
      result += character;
    }
    json.remove_prefix(1);
  }
  return result;
}

}  // namespace ostravel
