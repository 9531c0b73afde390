#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "Platform/Interface/Log.h"

namespace ostravel::linuxplatform {

// text as a single harmless line: control characters and bytes that are not UTF-8 (RFC 3629) are
// written as \xNN, so that a foreign value can neither forge a log line nor control a terminal.
std::string printable(std::string_view text);

// A finished, printable line.
std::string printableLogLine(std::string_view format,
                             std::span<const platform::LogArgument> arguments);

// Replaces lines in the log that were dropped because they were not read fast enough. An error.
std::string droppedLinesText(std::size_t count);

}  // namespace ostravel::linuxplatform
