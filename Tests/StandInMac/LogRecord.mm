// The unified log and NSLog, recording what is written.

#import "Tests/StandInMac/LogRecord.h"

#import <objc/runtime.h>
#import <os/log.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string_view>
#include <utility>

using ostravel::standin::LogLine;

@interface StandInLog : NSObject <OS_os_log> {
 @public
  std::string _subsystem;
  std::string _category;
}
@end
@implementation StandInLog
@end

// The default log is a constant object without an owner.
@interface StandInDefaultLog : NSObject <OS_os_log>
@end

struct os_log_s {
  Class isa;
};
extern "C" {
os_log_s _os_log_default{};
}

namespace {

struct LogRecord {
  std::mutex lock;
  std::vector<LogLine> lines;
  std::vector<std::string> systemLines;
  std::atomic<bool> recordsDebug = true;
};

// Outlives every thread that may still write to it.
LogRecord& logRecord() {
  static LogRecord& record = *new LogRecord();
  return record;
}

void recordSystemLine(NSString* message) {
  const std::lock_guard guard(logRecord().lock);
  logRecord().systemLines.emplace_back([message UTF8String]);
}

// The encoded arguments: a summary byte and a count, then for each argument a byte with its kind in
// the high half and its visibility in the low one, a byte with the size, and the value.
class EncodedArguments {
 public:
  EncodedArguments(const std::uint8_t* bytes, std::size_t size)
      : bytes_(reinterpret_cast<const char*>(bytes), size), left_(bytes[1]) {
    bytes_.remove_prefix(2);
  }

  std::string next() {
    constexpr unsigned kPublic = 2;
    constexpr unsigned kString = 2;
    if (left_ == 0) {
      return "<missing>";
    }
    --left_;
    const auto descriptor = static_cast<unsigned char>(bytes_[0]);
    const auto size = static_cast<unsigned char>(bytes_[1]);
    const std::string_view value = bytes_.substr(2, size);
    bytes_.remove_prefix(2U + size);
    if ((descriptor & 0x0FU) != kPublic) {
      return "<private>";
    }
    if (descriptor >> 4U == kString) {
      const char* text = nullptr;
      std::memcpy(&text, value.data(), sizeof text);
      return text;
    }
    int number = 0;
    std::memcpy(&number, value.data(), sizeof number);
    return std::to_string(number);
  }

 private:
  std::string_view bytes_;
  unsigned left_;
};

std::string formatted(std::string_view format, EncodedArguments arguments) {
  std::string line;
  for (auto at = format.find('%'); at != std::string_view::npos; at = format.find('%')) {
    line += format.substr(0, at);
    line += arguments.next();
    format.remove_prefix(format.find_first_of("sd", format.find('}', at)) + 1);
  }
  line += format;
  return line;
}

}  // namespace

@implementation StandInDefaultLog
// Before anything of the program can log.
+ (void)load {
  _os_log_default.isa = self;
  _NSLog_printf_handler = recordSystemLine;
}
- (id)retain {
  return self;
}
- (oneway void)release {
}
@end

extern "C" {

os_log_t os_log_create(const char* subsystem, const char* category) {
  StandInLog* const log = [[StandInLog alloc] init];
  log->_subsystem = subsystem;
  log->_category = category;
  return log;
}

bool os_log_type_enabled(os_log_t /*oslog*/, os_log_type_t type) {
  return type != OS_LOG_TYPE_DEBUG || logRecord().recordsDebug;
}

void _os_log_impl(void* /*dso*/, os_log_t log, os_log_type_t type, const char* format,
                  std::uint8_t* buf, std::uint32_t size) {
  LogLine line{"", "", type, formatted(format, EncodedArguments(buf, size))};
  if (log != OS_LOG_DEFAULT) {
    line.subsystem = static_cast<StandInLog*>(log)->_subsystem;
    line.category = static_cast<StandInLog*>(log)->_category;
  }
  const std::lock_guard guard(logRecord().lock);
  logRecord().lines.push_back(std::move(line));
}

}  // extern "C"

namespace ostravel::standin {

std::vector<LogLine> loggedLines() {
  const std::lock_guard guard(logRecord().lock);
  return logRecord().lines;
}

std::vector<std::string> systemLogLines() {
  const std::lock_guard guard(logRecord().lock);
  return logRecord().systemLines;
}

void clearLogRecord() {
  const std::lock_guard guard(logRecord().lock);
  logRecord().lines.clear();
  logRecord().systemLines.clear();
}

void setDebugLogging(bool enabled) {
  logRecord().recordsDebug = enabled;
}

}  // namespace ostravel::standin
