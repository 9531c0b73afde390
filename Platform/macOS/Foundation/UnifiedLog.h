#pragma once

#import <os/log.h>

#include "Platform/Interface/Log.h"
#import "Platform/macOS/Foundation/Reference.h"

namespace ostravel::macos {

// One handle of the unified log. The line is formatted here, because the system's call accepts only
// a literal as its format, and passed on as public text. Usable from any thread.
class UnifiedLog final : public platform::Log {
 public:
  explicit UnifiedLog(Reference<os_log_t> handle);

 protected:
  void write(platform::LogLevel level, std::string_view format,
             std::span<const platform::LogArgument> arguments) override;

 private:
  const Reference<os_log_t> handle_;
};

}  // namespace ostravel::macos
