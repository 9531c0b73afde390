#include "Platform/Linux/Services/LogLine.h"

#include "Base/PrintableText.h"

namespace ostravel::linuxplatform {

std::string printableLogLine(std::string_view format,
                             std::span<const platform::LogArgument> arguments) {
  return printableText(platform::formatLogLine(format, arguments));
}

std::string droppedLinesText(std::size_t count) {
  return "OstravelProxy: Log lines dropped count=" + std::to_string(count);
}

}  // namespace ostravel::linuxplatform
