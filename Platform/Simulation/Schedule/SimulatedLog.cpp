#include "Platform/Simulation/Schedule/SimulatedLog.h"

#include <utility>

namespace ostravel::simulation {

SimulatedLog::SimulatedLog(const RunQueue& run, std::vector<LogRecord>& records,
                           std::string subsystem, std::string category)
    : run_(run),
      records_(records),
      subsystem_(std::move(subsystem)),
      category_(std::move(category)) {}

void SimulatedLog::write(platform::LogLevel level, std::string_view format,
                         std::span<const platform::LogArgument> arguments) {
  writeAbout({}, level, format, arguments);
}

void SimulatedLog::writeAbout(const platform::LogFields& fields, platform::LogLevel level,
                              std::string_view format,
                              std::span<const platform::LogArgument> arguments) {
  records_.push_back({level, subsystem_, category_, platform::formatLogLine(format, arguments),
                      run_.now(), std::string(fields.flowID), std::string(fields.application),
                      std::string(fields.code)});
}

}  // namespace ostravel::simulation
