#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Extension/main/Privileges.h"
#include "Platform/Linux/Kernel/PacketMarks.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/Names/NameUse.h"
#include "Platform/Linux/Processes/ProcessTable.h"

namespace ostravel {

// The command line of ostravel-extension.
struct CommandLine {
  enum class Job {
    // Intercept until a signal ends it.
    run,
    // Report problems of the machine.
    check,
    // Print the rules.
    dryRun,
  };

  struct Options {
    Job job = Job::run;
    // Absent: the default file, if there is one.
    std::optional<std::string> configurationPath;
    linuxplatform::LinuxPlatform::LogSink logSink;
    // Absent: that of the configuration.
    std::optional<platform::LogLevel> logLevel;
    // The path of the control socket. Absent: the default.
    std::optional<std::string> controlPath;
    bool hasControl = true;
    // What is reported.
    bool asJSON = false;
    // False for debuggers, which stop the process for longer than a guardian waits.
    bool hasGuardian = true;
    // Where an inspector listens that looks at other users' processes. Absent: this process does.
    std::optional<std::string> inspectorPath;
    // Users, besides root and system users, whose local proxy may carry the flows of all users.
    std::vector<uid_t> proxyUsers;
    linuxplatform::PacketMarks marks;
    linuxplatform::NameUse names = linuxplatform::NameUse::connect;

    linuxplatform::Privileges::Inspection inspection() const;
    // Tables of the machine's processes, read here or by the inspector. warn receives a sentence
    // about an inspector that does not answer, on any thread.
    linuxplatform::ProcessTableSource processTables(
        std::function<void(const std::string&)> warn) const;
  };

  // Absent if the process has to end with exitStatus, because it has printed its help, its version
  // or a problem with the arguments.
  std::optional<Options> options;
  int exitStatus = 0;

  static CommandLine parse(int argc, char** argv);
};

}  // namespace ostravel
