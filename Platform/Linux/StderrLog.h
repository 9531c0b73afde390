#pragma once

#include "Platform/Interface/Log.h"

namespace ostravel::linuxplatform {

// Writes lines to standard error, each by one write(2):
//
//   2026-11-21T11:05:01.123Z info    OstravelProxy: Provider started
//
// Time in UTC, then the level. A line that cannot be written is lost without a word, except that a
// closed pipe raises SIGPIPE, which the process ignores. Usable from any thread.
class StderrLog final : public platform::Log {
 public:
  enum class Debug { isDropped, isWritten };

  // The descriptor stays the caller's.
  StderrLog(int descriptor, Debug debug) : descriptor_(descriptor), debug_(debug) {}

 protected:
  void write(platform::LogLevel level, std::string_view format,
             std::span<const platform::LogArgument> arguments) override;

 private:
  const int descriptor_;
  const Debug debug_;
};

}  // namespace ostravel::linuxplatform
