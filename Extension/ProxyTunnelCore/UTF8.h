#pragma once

#include <string_view>

namespace ostravel {

// Whether text is well-formed UTF-8 (RFC 3629): no stray or missing continuation bytes, no overlong
// forms, no surrogates, nothing above U+10FFFF.
bool isWellFormedUTF8(std::string_view text);

}  // namespace ostravel
