#pragma once

#include <string>
#include <string_view>

namespace ostravel {

// True for code points that can change how a terminal displays the text around them: the C0 and C1
// controls, DEL, the line separators U+2028 and U+2029, and the marks that reverse the direction of
// writing.
bool disturbsTerminal(char32_t codePoint);

// The text with everything that `disturbsTerminal` and every byte that is not UTF-8 written as a
// visible escape: \n, \t, \x1b, \u202e. A backslash becomes two, so that no escape can be forged.
std::string printableText(std::string_view text);
void appendPrintableText(std::string& result, std::string_view text);

// `printableText`, in double quotes if the end of the value would be ambiguous: if it is empty or
// contains a space, a quote or an equals sign.
std::string printableValue(std::string_view value);

}  // namespace ostravel
