#include "Platform/Linux/JournalLog.h"

// The place in our source files is of no use in the journal.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <array>
#include <cerrno>
#include <string_view>

#include "Platform/Linux/LogLine.h"

namespace ostravel::linuxplatform {

using platform::LogLevel;

namespace {

// syslog(3) levels.
std::string_view priorityField(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return "PRIORITY=7";
    case LogLevel::info:
      return "PRIORITY=6";
    case LogLevel::standard:
      return "PRIORITY=5";
    case LogLevel::error:
      break;
  }
  return "PRIORITY=3";
}

iovec part(std::string_view field) {
  // Only read from, although the type cannot say so.
  return {const_cast<char*>(field.data()), field.size()};
}

}  // namespace

JournalLog::JournalLog(const std::string& subsystem, const std::string& category)
    : subsystemField_("OSTRAVEL_SUBSYSTEM=" + printable(subsystem)),
      categoryField_("OSTRAVEL_CATEGORY=" + printable(category)) {}

void JournalLog::write(LogLevel level, std::string_view format,
                       std::span<const platform::LogArgument> arguments) {
  const int errorOfCaller = errno;
  const std::string message = "MESSAGE=" + printableLogLine(format, arguments);
  const std::array<iovec, 5> fields{part(message), part(priorityField(level)),
                                    part("SYSLOG_IDENTIFIER=ostravel"), part(subsystemField_),
                                    part(categoryField_)};
  ::sd_journal_sendv(fields.data(), static_cast<int>(fields.size()));
  errno = errorOfCaller;
}

}  // namespace ostravel::linuxplatform
