#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ostravel {

// One code point taken from the front of a text that claims to be UTF-8.
struct CodePoint {
  char32_t value;    // meaningless when not `valid`
  std::size_t size;  // bytes taken, at least 1
  bool valid;        // false: the first byte begins no character (RFC 3629: no overlong forms, no
                     // surrogates, nothing above U+10FFFF)
};

// `text` must not be empty.
CodePoint firstCodePoint(std::string_view text);

// The same for the end of the text: if not `valid`, the last byte ends no character.
CodePoint lastCodePoint(std::string_view text);

// True if text consists of valid code points only.
bool isWellFormedUTF8(std::string_view text);

// The text with its ASCII letters in lower case; all other bytes, valid or not, are unchanged.
std::string lowercasedASCII(std::string_view text);

}  // namespace ostravel
