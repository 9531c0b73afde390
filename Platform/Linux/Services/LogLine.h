#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "Base/BackgroundWriter.h"
#include "Platform/Interface/Log.h"

namespace ostravel::linuxplatform {

// The formatted line. All of it is printable, so that a foreign value can neither forge a log line
// nor control a terminal.
std::string printableLogLine(std::string_view format,
                             std::span<const platform::LogArgument> arguments);
void appendPrintableLogLine(std::string& text, std::string_view format,
                            std::span<const platform::LogArgument> arguments);

// Errors are written at once.
constexpr BackgroundWriter::Urgency urgencyOf(platform::LogLevel level) {
  return level == platform::LogLevel::error ? BackgroundWriter::Urgency::urgent
                                            : BackgroundWriter::Urgency::canWait;
}

// The line, of level error, that replaces lines in the log that were dropped because they were not
// read fast enough.
inline constexpr std::string_view kDroppedLinesFormat =
    "OstravelProxy: Log lines dropped count=%{public}d";
std::string droppedLinesText(std::size_t count);

}  // namespace ostravel::linuxplatform
