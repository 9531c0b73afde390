#include "Companion/Shared/CommandLine.h"

#include <unistd.h>

#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <chrono>
#include <exception>
#include <string>
#include <vector>

#include "Base/LineOutput.h"
#include "Base/PrintableText.h"

namespace ostravel::companion {

namespace {

int fail(const std::string& name, std::string_view problem) {
  // Made printable, because the problem quotes the arguments.
  const std::string line = name + ": " + printableText(problem) + '\n';
  static_cast<void>(LineOutput(STDERR_FILENO).writeAll(line, std::chrono::seconds(1)));
  return kExitUsage;
}

}  // namespace

std::optional<int> readCommandLine(CLI::App& app, int argc, const char* const* argv) {
  app.set_version_flag("--version", app.get_name() + " " OSTRAVEL_VERSION);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      return app.exit(error);
    }
    // Otherwise an unknown command would be reported as a missing one.
    const std::vector<std::string> unknown = app.remaining();
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError) &&
        !unknown.empty()) {
      return failUsage(app, unknown.front() + ": unknown argument");
    }
    return failUsage(app, error.what());
  }
  return std::nullopt;
}

void addTimeOption(CLI::App& app, std::string& name) {
  app.add_option("--time", name, "Write the time of day, or date and zone: time, local or utc")
      ->option_text("STYLE [time]");
}

int failTimeStyle(const CLI::App& app, std::string_view name) {
  return failUsage(app, "--time: not time, local or utc: " + std::string(name));
}

int runProgram(const char* name, int (*run)(int, char**), int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& failure) {
    return fail(name, failure.what());
  }
}

int failUsage(const CLI::App& app, std::string_view problem) {
  return fail(app.get_name(), problem);
}

}  // namespace ostravel::companion
