#include "Platform/Linux/Services/StderrLog.h"

#include <fcntl.h>

#include <cerrno>
#include <chrono>
#include <utility>

#include "Base/CalendarText.h"
#include "Platform/Linux/Services/LogLine.h"

namespace ostravel::linuxplatform {

using platform::LogLevel;

namespace {

using namespace std::chrono_literals;

// How soon the writer notices that it must end.
constexpr auto kPatience = 100ms;

// Usual lines fit, so that they are written in one piece of memory.
constexpr std::size_t kLineRoom = 160;

// That of the longest name.
constexpr std::size_t kLevelWidth = 7;

std::string linePrefix(LogLevel level) {
  constexpr unsigned kMillisecondDigits = 3;
  const auto now = std::chrono::system_clock::now();
  const auto second = std::chrono::floor<std::chrono::seconds>(now);
  const auto fraction = std::chrono::floor<std::chrono::milliseconds>(now - second);
  std::string text;
  text.reserve(kLineRoom);
  appendCalendarText(text, second);
  text += '.';
  appendPadded(text, static_cast<unsigned>(fraction.count()), kMillisecondDigits);
  const std::string_view name = nameOf(level);
  text.append("Z ").append(name).append(kLevelWidth + 1 - name.size(), ' ');
  return text;
}

}  // namespace

StderrLog::Output::Output(int descriptor)
    : descriptor_(::fcntl(descriptor, F_DUPFD_CLOEXEC, 0)), output_(descriptor_.get()) {}

std::size_t StderrLog::Output::write(std::string_view lines) {
  // Do not wait if it is not open: poll(2) would ignore it.
  return descriptor_.isOpen() ? output_.writePiece(lines, kPatience).size : lines.size();
}

std::string StderrLog::Output::dropped(std::size_t count) {
  return linePrefix(LogLevel::error) + droppedLinesText(count) + '\n';
}

std::size_t StderrLog::Output::writeInCrash(std::string_view lines) noexcept {
  return output_.writePiece(lines, 0ms).size;
}

StderrLog::StderrLog(std::shared_ptr<BackgroundWriter> writer, LogLevel least)
    : writer_(std::move(writer)), least_(least) {}

void StderrLog::write(LogLevel level, std::string_view format,
                      std::span<const platform::LogArgument> arguments) {
  if (level < least_) {
    return;
  }
  const int errorOfCaller = errno;
  std::string line = linePrefix(level);
  appendPrintableLogLine(line, format, arguments);
  line += '\n';
  writer_->push(line, urgencyOf(level));
  errno = errorOfCaller;
}

}  // namespace ostravel::linuxplatform
