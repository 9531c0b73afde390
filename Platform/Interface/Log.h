#pragma once

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <variant>

namespace ostravel::platform {

// Category of every log line of the system, and its subsystem if there is no bundle identifier.
inline constexpr std::string_view kLogCategory = "OstravelProxy";
inline constexpr std::string_view kFallbackLogSubsystem = "OstravelNetworkExtension";

enum class LogLevel { debug, info, standard, error };

// The value of one placeholder: text for %{public}s, an integer for %{public}d.
using LogArgument = std::variant<std::string_view, std::int64_t>;

// One handle of the system log, for a subsystem and a category. Usable from any thread; writing a
// line never waits and never fails.
class Log {
 public:
  using Arguments = std::initializer_list<LogArgument>;

  Log() = default;
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;
  virtual ~Log() = default;

  void debug(std::string_view format, Arguments arguments = {}) {
    write(LogLevel::debug, format, {arguments.begin(), arguments.size()});
  }
  void info(std::string_view format, Arguments arguments = {}) {
    write(LogLevel::info, format, {arguments.begin(), arguments.size()});
  }
  void standard(std::string_view format, Arguments arguments = {}) {
    write(LogLevel::standard, format, {arguments.begin(), arguments.size()});
  }
  void error(std::string_view format, Arguments arguments = {}) {
    write(LogLevel::error, format, {arguments.begin(), arguments.size()});
  }

 protected:
  virtual void write(LogLevel level, std::string_view format,
                     std::span<const LogArgument> arguments) = 0;
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
