#pragma once

#include <string>

#include "Platform/Interface/Log.h"

namespace ostravel::linuxplatform {

// Sends lines of all levels to the systemd journal, with subsystem and category as fields of their
// own (OSTRAVEL_SUBSYSTEM, OSTRAVEL_CATEGORY). A line is lost without a word when there is no
// journal. Usable from any thread.
class JournalLog final : public platform::Log {
 public:
  JournalLog(const std::string& subsystem, const std::string& category);

 protected:
  void write(platform::LogLevel level, std::string_view format,
             std::span<const platform::LogArgument> arguments) override;

 private:
  // Complete fields, as the journal takes them.
  const std::string subsystemField_;
  const std::string categoryField_;
};

}  // namespace ostravel::linuxplatform
