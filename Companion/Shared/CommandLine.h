#pragma once

#include <CLI/App.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace ostravel::companion {

constexpr int kExitUsage =
    2;  // Also the status if the program cannot listen where it was asked to.

// Adds --version and parses the arguments. Returns an exit status if the program has to end: 0
// after printing help or version, kExitUsage after printing the problem as one line on standard
// error.
std::optional<int> readCommandLine(CLI::App& app, int argc, const char* const* argv);

// Adds --time, the style of times, which is the same option in all programs. The value is a name
// for timeStyleNamed(); failTimeStyle() reports any other.
void addTimeOption(CLI::App& app, std::string& name);
int failTimeStyle(const CLI::App& app, std::string_view name);

// Runs a program and returns its exit status. What it throws is printed as one line on standard
// error, and the status is kExitUsage.
int runProgram(const char* name, int (*run)(int, char**), int argc, char** argv);

// Prints "<program>: <problem>" as one line on standard error; returns kExitUsage.
int failUsage(const CLI::App& app, std::string_view problem);

}  // namespace ostravel::companion
