#pragma once

#include <string>
#include <string_view>

namespace ostravel {

// The same JSON value on one line, without white space between tokens, without the optional escape
// of "/", and with an escape for every character that could disturb a terminal. Nothing else
// changes: numbers and the order of keys stay as they were sent, which parsing and printing would
// not guarantee. `json` must be a valid JSON text (RFC 8259).
std::string compactJSON(std::string_view json);

}  // namespace ostravel
