#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/Kernel/PacketMarks.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/Names/NameUse.h"

namespace ostravel {

// The command line of ostravel-extension.
struct CommandLine {
  enum class Job {
    // Intercept until a signal ends it.
    run,
    // Report what would keep it from running well.
    check,
    // Print the rules.
    dryRun,
  };

  struct Options {
    Job job = Job::run;
    // Absent: the default file, if there is one.
    std::optional<std::string> configurationPath;
    linuxplatform::LinuxPlatform::LogSink logSink;
    // Where the control socket is. Absent: the default.
    std::optional<std::string> controlPath;
    bool hasControl = true;
    // False for debuggers, which stop the process for longer than a guardian waits.
    bool hasGuardian = true;
    // Whose local proxy may carry everybody's flows, besides root's and system users'.
    std::vector<uid_t> proxyUsers;
    linuxplatform::PacketMarks marks;
    linuxplatform::NameUse names = linuxplatform::NameUse::connect;
  };

  // Absent when the process is to end with exitStatus, because it has shown its help or version, or
  // has said what is wrong with the arguments.
  std::optional<Options> options;
  int exitStatus = 0;

  static CommandLine parse(int argc, char** argv);
};

}  // namespace ostravel
