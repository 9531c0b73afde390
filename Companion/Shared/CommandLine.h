#pragma once

#include <CLI/App.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace ostravel::companion {

constexpr int kExitUsage =
    2;  // Also the status if the program cannot listen where it was asked to.

// Adds --version and parses the arguments. Returns the status to exit with if there is nothing else
// to do: 0 after help or version were printed, kExitUsage after one line on standard error said
// what is wrong.
std::optional<int> readCommandLine(CLI::App& app, int argc, const char* const* argv);

// Adds --time, the same in all programs: how times are written. The value is a name of
// timeStyleNamed; failTimeStyle reports any other.
void addTimeOption(CLI::App& app, std::string& name);
int failTimeStyle(const CLI::App& app, std::string_view name);

// Prints "<program>: <problem>" as one line on standard error; returns kExitUsage.
int failUsage(const CLI::App& app, std::string_view problem);

}  // namespace ostravel::companion
