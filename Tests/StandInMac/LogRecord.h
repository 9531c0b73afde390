#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ostravel::standin {

struct LogLine {
  std::string subsystem;
  std::string category;
  // OS_LOG_TYPE_...
  std::uint8_t type = 0;
  std::string text;

  friend bool operator==(const LogLine&, const LogLine&) = default;
};

// What was written to the unified log and to the plain system log, oldest first, of the whole
// process. The default log has an empty subsystem. From any thread.
std::vector<LogLine> loggedLines();
std::vector<std::string> systemLogLines();
void clearLogRecord();

// Whether debug lines are recorded; they are from the start.
void setDebugLogging(bool enabled);

}  // namespace ostravel::standin
