#include "Platform/Linux/Services/StderrLog.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <utility>

#include "Platform/Linux/Services/LogLine.h"

namespace ostravel::linuxplatform {

using platform::LogLevel;

namespace {

using namespace std::chrono_literals;

// How soon the writer notices that it must end.
constexpr auto kPatience = 100ms;

const char* levelName(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return "debug";
    case LogLevel::info:
      return "info";
    case LogLevel::standard:
      return "default";
    case LogLevel::error:
      break;
  }
  return "error";
}

std::string linePrefix(LogLevel level) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  std::tm time{};
  ::gmtime_r(&now.tv_sec, &time);
  constexpr long kNanosecondsPerMillisecond = 1'000'000;
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ %-7s ",
                time.tm_year + 1900, time.tm_mon + 1, time.tm_mday, time.tm_hour, time.tm_min,
                time.tm_sec, static_cast<int>(now.tv_nsec / kNanosecondsPerMillisecond),
                levelName(level));
  return text.data();
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

StderrLog::StderrLog(std::shared_ptr<BackgroundWriter> writer) : writer_(std::move(writer)) {}

void StderrLog::write(LogLevel level, std::string_view format,
                      std::span<const platform::LogArgument> arguments) {
  if (level == LogLevel::debug) {
    return;
  }
  const int errorOfCaller = errno;
  writer_->push(linePrefix(level) + printableLogLine(format, arguments) + '\n', urgencyOf(level));
  errno = errorOfCaller;
}

}  // namespace ostravel::linuxplatform
