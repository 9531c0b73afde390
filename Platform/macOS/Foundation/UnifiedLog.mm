#import "Platform/macOS/Foundation/UnifiedLog.h"

#include <string>
#include <utility>

namespace ostravel::macos {

namespace {

os_log_type_t typeOf(platform::LogLevel level) {
  switch (level) {
    case platform::LogLevel::debug:
      return OS_LOG_TYPE_DEBUG;
    case platform::LogLevel::info:
      return OS_LOG_TYPE_INFO;
    case platform::LogLevel::standard:
      return OS_LOG_TYPE_DEFAULT;
    case platform::LogLevel::error:
      return OS_LOG_TYPE_ERROR;
  }
  return OS_LOG_TYPE_DEFAULT;
}

}  // namespace

UnifiedLog::UnifiedLog(Reference<os_log_t> handle) : handle_(std::move(handle)) {}

void UnifiedLog::write(platform::LogLevel level, std::string_view format,
                       std::span<const platform::LogArgument> arguments) {
  const os_log_type_t type = typeOf(level);
  // Debug lines are usually disabled; do not format them then.
  if (os_log_type_enabled(handle_.get(), type)) {
    const std::string line = platform::formatLogLine(format, arguments);
    os_log_with_type(handle_.get(), type, "%{public}s", line.c_str());
  }
}

}  // namespace ostravel::macos
