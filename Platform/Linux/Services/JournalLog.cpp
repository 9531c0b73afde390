#include "Platform/Linux/Services/JournalLog.h"

// Positions in our source files are useless in the journal.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <systemd/sd-journal.h>

#include <array>
#include <cerrno>
#include <string_view>
#include <utility>

#include "Base/FileDescriptor.h"
#include "Base/PrintableText.h"
#include "Platform/Linux/Services/LogCatalogue.h"
#include "Platform/Linux/Services/LogLine.h"

namespace ostravel::linuxplatform {

using platform::LogFields;
using platform::LogLevel;

namespace {

// More than any record has.
constexpr std::size_t kMostFields = 16;

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

std::string originFields(const std::string& subsystem, const std::string& category) {
  return "SYSLOG_IDENTIFIER=ostravel\nOSTRAVEL_SUBSYSTEM=" + printableText(subsystem) +
         "\nOSTRAVEL_CATEGORY=" + printableText(category) + '\n';
}

void append(std::string& fields, std::string_view name, std::string_view value) {
  if (!value.empty()) {
    fields.append(name).append("=").append(printableText(value)).append("\n");
  }
}

// text is printable, so it contains no line feed that would end a field. format: that of text.
std::string record(LogLevel level, std::string_view text, std::string_view format,
                   const LogFields& about, std::string_view origin) {
  std::string fields = "MESSAGE=";
  fields.append(text).append("\n").append(priorityField(level)).append("\n");
  append(fields, "MESSAGE_ID", messageIDOf(format));
  append(fields, "OSTRAVEL_FLOW_ID", about.flowID);
  append(fields, "OSTRAVEL_CODE", about.code);
  append(fields, "APPLICATION", about.application);
  return fields.append(origin).append("\n");
}

sockaddr_un journalAddress() {
  constexpr std::string_view kJournal = "/run/systemd/journal/socket";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  kJournal.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

// The fields of the first record, each with its line feed, without the empty line.
std::string_view firstRecord(std::string_view records) {
  return records.substr(0, records.find("\n\n") + 1);
}

}  // namespace

bool JournalLog::isThere() {
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = journalAddress();
  return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

JournalLog::Output::Output(const std::string& subsystem, const std::string& category)
    : originFields_(originFields(subsystem, category)) {}

std::size_t JournalLog::Output::write(std::string_view records) {
  const std::string_view fields = firstRecord(records);
  std::array<iovec, kMostFields> parts{};
  std::size_t count = 0;
  for (std::string_view rest = fields; !rest.empty() && count < parts.size(); ++count) {
    const std::size_t end = rest.find('\n');
    // sendmsg(2) only reads from it, although the type is not const.
    parts[count] = {const_cast<char*>(rest.data()), end};
    rest.remove_prefix(end + 1);
  }
  ::sd_journal_sendv(parts.data(), static_cast<int>(count));
  return fields.size() + 1;
}

std::string JournalLog::Output::dropped(std::size_t count) {
  return record(LogLevel::error, droppedLinesText(count), kDroppedLinesFormat, {}, originFields_);
}

// Without the library, which may allocate. The fields already have the journal's format (systemd's
// "Native Journal Protocol"): one datagram, one line per field.
std::size_t JournalLog::Output::writeInCrash(std::string_view records) noexcept {
  const std::string_view fields = firstRecord(records);
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = journalAddress();
  const auto sent =
      ::sendto(socket.get(), fields.data(), fields.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&address), sizeof address);
  return sent < 0 ? 0 : fields.size() + 1;
}

JournalLog::JournalLog(std::shared_ptr<BackgroundWriter> writer, const std::string& subsystem,
                       const std::string& category, LogLevel least)
    : writer_(std::move(writer)), originFields_(originFields(subsystem, category)), least_(least) {}

void JournalLog::write(LogLevel level, std::string_view format,
                       std::span<const platform::LogArgument> arguments) {
  writeAbout({}, level, format, arguments);
}

void JournalLog::writeAbout(const LogFields& fields, LogLevel level, std::string_view format,
                            std::span<const platform::LogArgument> arguments) {
  if (level < least_) {
    return;
  }
  const int errorOfCaller = errno;
  writer_->push(record(level, printableLogLine(format, arguments), format, fields, originFields_),
                urgencyOf(level));
  errno = errorOfCaller;
}

}  // namespace ostravel::linuxplatform
