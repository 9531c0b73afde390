#pragma once

#include <CLI/App.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace ostravel::companion {

constexpr int kExitUsage = 2;  // Also for what the program was asked to listen on and cannot.

// Adds --version and reads the arguments into what `app` was given to fill. Returns the status to
// exit with when that is all there is to do: 0 after help or version were printed, kExitUsage after
// one line on standard error said what is wrong.
std::optional<int> readCommandLine(CLI::App& app, int argc, const char* const* argv);

// Prints "<program>: <problem>" as one line on standard error; returns kExitUsage.
int failUsage(const CLI::App& app, std::string_view problem);

}  // namespace ostravel::companion
