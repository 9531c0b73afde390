#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "Platform/Interface/Log.h"

namespace ostravel::linuxplatform {

// text as one line that shows everything and commands nothing: control characters and bytes that
// are not UTF-8 (RFC 3629) are written as \xNN. A value from elsewhere can therefore neither forge
// a log line nor speak to a terminal.
std::string printable(std::string_view text);

// A finished, printable line.
std::string printableLogLine(std::string_view format,
                             std::span<const platform::LogArgument> arguments);

// What stands in the log where lines are missing, because nobody read them fast enough. An error.
std::string droppedLinesText(std::size_t count);

}  // namespace ostravel::linuxplatform
