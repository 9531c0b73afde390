#pragma once

#include <jansson.h>

#include <string>

namespace ostravel::companion {

// Adds to a request what the text names: the number of a process, the path of a program, or a
// destination as HOST, HOST:PORT, [IPv6], [IPv6]:PORT, an IPv6 address without brackets or a URL.
// Returns false if it can be none of them. The extension rejects invalid numbers with a reason.
bool addExplainSubject(json_t* request, const std::string& text);

}  // namespace ostravel::companion
