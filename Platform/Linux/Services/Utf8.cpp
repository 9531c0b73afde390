#include "Platform/Linux/Services/Utf8.h"

namespace ostravel::linuxplatform {

namespace {

bool isBetween(char byte, unsigned low, unsigned high) {
  const auto value = static_cast<unsigned char>(byte);
  return value >= low && value <= high;
}

}  // namespace

// The table of well-formed sequences in RFC 3629, section 4.
std::size_t utf8CharacterLength(std::string_view text) {
  if (text.empty()) {
    return 0;
  }
  const auto first = static_cast<unsigned char>(text[0]);
  if (first < 0x80) {
    return 1;
  }
  if (first < 0xc2 || first > 0xf4) {
    return 0;
  }
  const std::size_t length = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
  if (text.size() < length) {
    return 0;
  }
  const unsigned low = first == 0xe0 ? 0xa0 : first == 0xf0 ? 0x90 : 0x80;
  const unsigned high = first == 0xed ? 0x9f : first == 0xf4 ? 0x8f : 0xbf;
  if (!isBetween(text[1], low, high)) {
    return 0;
  }
  for (std::size_t i = 2; i < length; ++i) {
    if (!isBetween(text[i], 0x80, 0xbf)) {
      return 0;
    }
  }
  return length;
}

std::string validUtf8(std::string_view text) {
  constexpr std::string_view kReplacement = "\xef\xbf\xbd";
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = utf8CharacterLength(text);
    result += length == 0 ? kReplacement : text.substr(0, length);
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return result;
}

}  // namespace ostravel::linuxplatform
