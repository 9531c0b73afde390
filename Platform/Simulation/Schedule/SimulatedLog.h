#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "Platform/Interface/Log.h"
#include "Platform/Simulation/Schedule/RunQueue.h"

namespace ostravel::simulation {

// One line that was logged.
struct LogRecord {
  platform::LogLevel level = platform::LogLevel::standard;
  // Both empty for the default log.
  std::string subsystem;
  std::string category;
  // With its arguments in place.
  std::string line;
  // Virtual time.
  std::chrono::nanoseconds moment{0};
  // As in platform::LogFields.
  std::string flowID = {};
  std::string application = {};
  std::string code = {};
};

// A log handle whose lines the simulation keeps, even after the handle is destroyed.
class SimulatedLog final : public platform::Log {
 public:
  SimulatedLog(const RunQueue& run, std::vector<LogRecord>& records, std::string subsystem,
               std::string category);

 protected:
  void write(platform::LogLevel level, std::string_view format,
             std::span<const platform::LogArgument> arguments) override;
  void writeAbout(const platform::LogFields& fields, platform::LogLevel level,
                  std::string_view format,
                  std::span<const platform::LogArgument> arguments) override;

 private:
  const RunQueue& run_;
  std::vector<LogRecord>& records_;
  const std::string subsystem_;
  const std::string category_;
};

}  // namespace ostravel::simulation
