#pragma once

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

namespace ostravel::platform {

// Category of every log line of the system, and its subsystem if there is no bundle identifier.
inline constexpr std::string_view kLogCategory = "OstravelProxy";
inline constexpr std::string_view kFallbackLogSubsystem = "OstravelNetworkExtension";

// From the least to the most important.
enum class LogLevel { debug, info, standard, error };

constexpr std::string_view nameOf(LogLevel level) {
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

constexpr std::optional<LogLevel> logLevelNamed(std::string_view name) {
  for (const auto level : {LogLevel::debug, LogLevel::info, LogLevel::standard, LogLevel::error}) {
    if (nameOf(level) == name) {
      return level;
    }
  }
  return std::nullopt;
}

// The value of one placeholder: text for %{public}s, an integer for %{public}d.
using LogArgument = std::variant<std::string_view, std::int64_t>;

// What a line is about, for a log that keeps fields beside the text. Never part of the line.
struct LogFields {
  std::string_view flowID = {};
  std::string_view application = {};
  // Of the event that is emitted with the line.
  std::string_view code = {};
};

// One handle of the system log, for a subsystem and a category. Usable from any thread; writing a
// line never waits and never fails.
class Log {
 public:
  using Arguments = std::initializer_list<LogArgument>;

  Log() = default;
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;
  virtual ~Log() = default;

  void debug(std::string_view format, Arguments arguments = {}, const LogFields& fields = {}) {
    writeAbout(fields, LogLevel::debug, format, {arguments.begin(), arguments.size()});
  }
  void info(std::string_view format, Arguments arguments = {}, const LogFields& fields = {}) {
    writeAbout(fields, LogLevel::info, format, {arguments.begin(), arguments.size()});
  }
  void standard(std::string_view format, Arguments arguments = {}, const LogFields& fields = {}) {
    writeAbout(fields, LogLevel::standard, format, {arguments.begin(), arguments.size()});
  }
  void error(std::string_view format, Arguments arguments = {}, const LogFields& fields = {}) {
    writeAbout(fields, LogLevel::error, format, {arguments.begin(), arguments.size()});
  }

 protected:
  virtual void write(LogLevel level, std::string_view format,
                     std::span<const LogArgument> arguments) = 0;
  // Most logs consist of lines alone.
  virtual void writeAbout(const LogFields& /*fields*/, LogLevel level, std::string_view format,
                          std::span<const LogArgument> arguments) {
    write(level, format, arguments);
  }
};

// The line, with each %{public}s and %{public}d of format replaced by the next argument.
inline std::string formatLogLine(std::string_view format, std::span<const LogArgument> arguments) {
  constexpr std::string_view kPlaceholder = "%{public}";
  std::string line;
  auto next = arguments.begin();
  while (true) {
    const auto at = format.find(kPlaceholder);
    line += format.substr(0, at);
    if (at == std::string_view::npos) {
      return line;
    }
    if (next != arguments.end()) {
      if (const auto* text = std::get_if<std::string_view>(&*next)) {
        line += *text;
      } else {
        line += std::to_string(std::get<std::int64_t>(*next));
      }
      ++next;
    }
    // One letter, s or d, follows the placeholder.
    format.remove_prefix(std::min(format.size(), at + kPlaceholder.size() + 1));
  }
}

}  // namespace ostravel::platform
