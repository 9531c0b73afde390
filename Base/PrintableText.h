#pragma once

#include <string>
#include <string_view>

namespace ostravel {

// True for what can change how a terminal shows the text around it: the C0 and C1 controls, DEL,
// the line separators U+2028 and U+2029, and the marks that reverse the direction of writing.
bool disturbsTerminal(char32_t codePoint);

// The text with everything that `disturbsTerminal` and every byte that is not UTF-8 written as a
// visible escape: \n, \t, \x1b, \u202e. A backslash becomes two, so that no escape can be forged.
std::string printableText(std::string_view text);

// `printableText`, in double quotes when a reader could not tell where the value ends: when it is
// empty or has a space, a quote or an equals sign in it.
std::string printableValue(std::string_view value);

}  // namespace ostravel
