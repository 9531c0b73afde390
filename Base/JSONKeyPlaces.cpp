#include "Base/JSONKeyPlaces.h"

#include <cstddef>

#include "Base/JSONHandle.h"

namespace ostravel {

namespace {

// The length of the string at the beginning of the text, including its quotes.
std::size_t lengthOfString(std::string_view text) {
  std::size_t length = 1;
  while (length < text.size() && text[length] != '"') {
    length += text[length] == '\\' ? 2 : 1;
  }
  return length + 1;
}

bool beginsCharacter(char byte) {
  // Not a continuation byte (RFC 3629).
  return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U;
}

}  // namespace

JSONKeyPlaces::JSONKeyPlaces(std::string_view text) {
  unsigned line = 1;
  unsigned column = 1;
  unsigned depth = 0;
  bool isKeyNext = false;
  for (std::size_t at = 0; at < text.size();) {
    const char byte = text[at];
    std::size_t length = 1;
    if (byte == '"') {
      const std::string_view token = text.substr(at, lengthOfString(text.substr(at)));
      length = token.size();
      if (depth == 1 && isKeyNext) {
        const JSONHandle key(json_loadb(token.data(), token.size(), JSON_DECODE_ANY, nullptr));
        places_.emplace(std::string(json_string_value(key.get()), json_string_length(key.get())),
                        ":" + std::to_string(line) + ":" + std::to_string(column));
        isKeyNext = false;
      }
    } else if (byte == '{' || byte == '[') {
      isKeyNext = ++depth == 1;
    } else if (byte == '}' || byte == ']') {
      --depth;
    } else if (byte == ',' && depth == 1) {
      isKeyNext = true;
    }
    for (const char passed : text.substr(at, length)) {
      column += beginsCharacter(passed) ? 1 : 0;
    }
    if (byte == '\n') {
      ++line;
      column = 1;
    }
    at += length;
  }
}

std::string JSONKeyPlaces::of(std::string_view key) const {
  const auto found = places_.find(key);
  return found == places_.end() ? std::string() : found->second;
}

}  // namespace ostravel
