#include "Platform/Linux/Services/LogLine.h"

#include "Base/PrintableText.h"

namespace ostravel::linuxplatform {

std::string printableLogLine(std::string_view format,
                             std::span<const platform::LogArgument> arguments) {
  std::string text;
  appendPrintableLogLine(text, format, arguments);
  return text;
}

void appendPrintableLogLine(std::string& text, std::string_view format,
                            std::span<const platform::LogArgument> arguments) {
  // Most lines, and those of every flow, are constant.
  if (format.find('%') == std::string_view::npos) {
    appendPrintableText(text, format);
  } else {
    appendPrintableText(text, platform::formatLogLine(format, arguments));
  }
}

std::string droppedLinesText(std::size_t count) {
  const platform::LogArgument argument = static_cast<std::int64_t>(count);
  return platform::formatLogLine(kDroppedLinesFormat, {&argument, 1});
}

}  // namespace ostravel::linuxplatform
