#include "Platform/Linux/StderrLog.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string>

#include "Platform/Linux/LogLine.h"

namespace ostravel::linuxplatform {

using platform::LogLevel;

namespace {

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

void StderrLog::write(LogLevel level, std::string_view format,
                      std::span<const platform::LogArgument> arguments) {
  if (level == LogLevel::debug && debug_ == Debug::isDropped) {
    return;
  }
  const int errorOfCaller = errno;
  const std::string line = linePrefix(level) + printableLogLine(format, arguments) + '\n';
  while (::write(descriptor_, line.data(), line.size()) < 0 && errno == EINTR) {
  }
  errno = errorOfCaller;
}

}  // namespace ostravel::linuxplatform
