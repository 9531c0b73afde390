#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ostravel::linuxplatform {

// Bytes of the character that text begins with; 0 when text is empty or does not begin with one
// (RFC 3629: no overlong forms, no surrogates, nothing above U+10FFFF).
std::size_t utf8CharacterLength(std::string_view text);

// text with every byte that is not part of a character replaced by U+FFFD.
std::string validUtf8(std::string_view text);

}  // namespace ostravel::linuxplatform
