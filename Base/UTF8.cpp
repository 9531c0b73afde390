#include "Base/UTF8.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace ostravel {
namespace {

constexpr CodePoint kInvalid{0, 1, false};

std::uint8_t byteAt(std::string_view text, std::size_t index) {
  return static_cast<std::uint8_t>(text[index]);
}

// How many bytes from the beginning on are ASCII for certain: whole words of them.
std::size_t plainSize(std::string_view text) {
  constexpr std::uint64_t kHighBits = 0x8080808080808080;
  std::size_t size = 0;
  for (std::uint64_t word = 0; size + sizeof word <= text.size(); size += sizeof word) {
    std::memcpy(&word, text.data() + size, sizeof word);
    if ((word & kHighBits) != 0) {
      break;
    }
  }
  return size;
}

}  // namespace

CodePoint firstCodePoint(std::string_view text) {
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
  // Overlong forms could hide control characters from checks.
  const bool overlong = (size == 3 && value < 0x800) || (size == 4 && value < 0x10000);
  const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
  if (overlong || surrogate || value > 0x10FFFF) {
    return kInvalid;
  }
  return {value, size, true};
}

CodePoint lastCodePoint(std::string_view text) {
  constexpr std::size_t kLongestCharacter = 4;
  for (std::size_t size = 1; size <= std::min(text.size(), kLongestCharacter); ++size) {
    const CodePoint last = firstCodePoint(text.substr(text.size() - size));
    if (last.valid) {
      return last.size == size ? last : kInvalid;
    }
  }
  return kInvalid;
}

bool isWellFormedUTF8(std::string_view text) {
  while (true) {
    text.remove_prefix(plainSize(text));
    if (text.empty()) {
      return true;
    }
    const CodePoint next = firstCodePoint(text);
    if (!next.valid) {
      return false;
    }
    text.remove_prefix(next.size);
  }
}

std::string lowercasedASCII(std::string_view text) {
  std::string result(text);
  for (char& byte : result) {
    if (byte >= 'A' && byte <= 'Z') {
      byte = static_cast<char>(byte + ('a' - 'A'));
    }
  }
  return result;
}

}  // namespace ostravel
