#pragma once

#include <optional>
#include <string>

#include "Extension/main/CheckReport.h"
#include "Extension/main/CommandLine.h"
#include "Platform/Interface/Result.h"

namespace ostravel {

// Examines whether the extension could run well on this machine with these options: its
// permissions, the kernel, other programs' rules, the local proxy, its files, and the clocks.
// Changes nothing; records connects for a moment. Takes up to a few seconds if a listener on the
// proxy's port does not answer.
linuxplatform::CheckReport checkSystem(const CommandLine::Options& options);

// Why the limit of open files does not permit the extension to run; empty if it does.
std::optional<std::string> descriptorObstacle();

// The rules that the extension would install, for nft(8). Needs no permission.
platform::Result<std::string> plannedRules(const CommandLine::Options& options);

}  // namespace ostravel
