#include "Extension/ProxyTunnelCore/UTF8.h"

#include <cstddef>
#include <cstdint>

namespace ostravel {

namespace {

constexpr bool isContinuation(unsigned char byte) {
  return (byte & 0xC0U) == 0x80U;
}

// Length of the well-formed sequence at the beginning of text, 0 if there is none.
// The bounds of the second byte exclude overlong forms, surrogates and values out of range.
std::size_t sequenceLength(std::string_view text) {
  const auto byteAt = [text](std::size_t index) -> unsigned char {
    return index < text.size() ? static_cast<unsigned char>(text[index]) : 0;
  };
  const unsigned char first = byteAt(0);
  const unsigned char second = byteAt(1);
  if (first < 0x80) {
    return 1;
  }
  if (first >= 0xC2 && first <= 0xDF) {
    return isContinuation(second) ? 2 : 0;
  }
  if (first >= 0xE0 && first <= 0xEF) {
    const bool inBounds = isContinuation(second) && !(first == 0xE0 && second < 0xA0) &&
                          !(first == 0xED && second > 0x9F);
    return inBounds && isContinuation(byteAt(2)) ? 3 : 0;
  }
  if (first >= 0xF0 && first <= 0xF4) {
    const bool inBounds = isContinuation(second) && !(first == 0xF0 && second < 0x90) &&
                          !(first == 0xF4 && second > 0x8F);
    return inBounds && isContinuation(byteAt(2)) && isContinuation(byteAt(3)) ? 4 : 0;
  }
  return 0;
}

}  // namespace

bool isWellFormedUTF8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = sequenceLength(text);
    if (length == 0) {
      return false;
    }
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace ostravel
