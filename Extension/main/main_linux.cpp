#include <fcntl.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Base/FileDescriptor.h"
#include "Base/LineOutput.h"
#include "Base/PrintableText.h"
#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#include "Extension/main/CommandLine.h"
#include "Extension/main/ConfigurationFile.h"
#include "Extension/main/Privileges.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/LinuxProviderContext.h"
#include "Platform/Linux/Liveness/Guardian.h"
#include "Platform/Linux/Liveness/Heartbeat.h"
#include "Platform/Linux/Liveness/HeartbeatRecord.h"
#include "Platform/Linux/Liveness/HeartbeatThreads.h"
#include "Platform/Linux/Relay/EventLoopGroup.h"
#include "Platform/Linux/Services/DescriptorBudget.h"

namespace {

using namespace ostravel;
using namespace std::chrono_literals;

constexpr int kExitCannotRun = 2;

// How long the last events may take to reach the monitoring socket: a companion that has stopped
// reading must not keep us from ending.
constexpr auto kDrainTimeout = 500ms;

// The same for the last log lines.
constexpr auto kLogTimeout = 500ms;

// The one line that says why the process ends, and its exit status.
int fail(std::string_view reason) {
  const std::string line = "ostravel-extension: " + printableText(reason) + '\n';
  static_cast<void>(LineOutput(STDERR_FILENO).writeAll(line, kLogTimeout));
  return kExitCannotRun;
}

int fail(const platform::Error& error) {
  return fail(error.localizedDescription);
}

// Only the main thread takes signals; every other thread inherits the mask. A peer that goes away
// while it is being written to must not end the process.
sigset_t takeOverSignals() {
  std::signal(SIGPIPE, SIG_IGN);
  // The parent may have left it ignored.
  std::signal(SIGCHLD, SIG_DFL);
  sigset_t taken;
  sigemptyset(&taken);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) {
    sigaddset(&taken, signal);
  }
  pthread_sigmask(SIG_BLOCK, &taken, nullptr);
  return taken;
}

int waitForSignal(const sigset_t& taken) {
  int signal = 0;
  while (sigwait(&taken, &signal) != 0) {
  }
  return signal;
}

// A terminal that is closed sends SIGHUP to end what was started in it. A service has no terminal
// (tty(4)); it receives SIGHUP to reload its configuration.
bool hasTerminal() {
  const FileDescriptor terminal(::open("/dev/tty", O_RDONLY | O_NOCTTY | O_CLOEXEC));
  return terminal.isOpen();
}

// Absent when none is wanted. An error is reported once there is a log.
using MaybeGuardian = std::optional<platform::Result<linuxplatform::Guardian>>;

void reportMissingGuardian(MaybeGuardian& guardian, platform::Log& log) {
  if (!guardian) {
    return;
  }
  if (!*guardian) {
    log.error("OstravelProxy: Hangs are not detected: %{public}s",
              {guardian->error().localizedDescription});
    guardian.reset();
  } else if ((*guardian)->hasEnded()) {
    log.error("OstravelProxy: The guardian has ended: hangs are no longer detected");
    guardian.reset();
  }
}

int run(int argc, char** argv) {
  const auto commandLine = CommandLine::parse(argc, argv);
  if (!commandLine.options) {
    return commandLine.exitStatus;
  }
  // As early as possible: the guardian keeps a copy of the memory in use.
  linuxplatform::HeartbeatRecord record;
  MaybeGuardian guardian;
  if (commandLine.options->hasGuardian) {
    guardian = linuxplatform::Guardian::start(record);
  }
  const auto configuration =
      linuxplatform::readProviderConfiguration(commandLine.options->configurationPath);
  if (!configuration) {
    return fail(configuration.error());
  }
  if (const auto missing = linuxplatform::missingPrivileges()) {
    return fail(*missing);
  }
  const sigset_t takenSignals = takeOverSignals();
  const bool endsOnHangUp = hasTerminal();

  // The object graph, outermost first: each outlives those below it.
  linuxplatform::LinuxPlatform platform(
      {.logSink = commandLine.options->logSink, .marks = commandLine.options->marks});
  platform.writeLogOnCrash();
  linuxplatform::DescriptorBudget descriptors;
  linuxplatform::EventLoopGroup loops(descriptors, commandLine.options->marks);
  linuxplatform::Heartbeat heartbeat(record);
  const auto memberships = joinHeartbeat(heartbeat, loops, platform.workers());
  linuxplatform::LinuxProviderContext context(platform,
                                              {.loops = loops,
                                               .descriptors = descriptors,
                                               .heartbeat = heartbeat,
                                               .onAlive = [] { ::sd_notify(0, "WATCHDOG=1"); },
                                               .proxyUsers = commandLine.options->proxyUsers},
                                              *configuration);
  auto provider = std::make_shared<PacketTunnelProvider>(platform, context);
  context.setProvider(provider);

  reportMissingGuardian(guardian, platform.defaultLog());
  heartbeat.start();

  std::promise<platform::OptionalError> started;
  provider->startProxy(std::nullopt, [&started](platform::OptionalError error) {
    started.set_value(std::move(error));
  });
  const auto startError = started.get_future().get();
  if (!startError) {
    ::sd_notify(0, "READY=1");
    // The guardian may have ended before its signal was taken over.
    for (int signal = SIGCHLD; signal == SIGCHLD || (signal == SIGHUP && !endsOnHangUp);
         signal = waitForSignal(takenSignals)) {
      if (signal == SIGCHLD) {
        reportMissingGuardian(guardian, platform.defaultLog());
      } else {
        context.reloadRegistrations();
      }
    }
    ::sd_notify(0, "STOPPING=1");
  }

  // From now on each finished step is a beat.
  heartbeat.stop();
  std::promise<void> stopped;
  provider->stopProxy(platform::ProviderStopReason::userInitiated,
                      [&stopped] { stopped.set_value(); });
  stopped.get_future().wait();
  record.beat();
  context.stopInterception();
  record.beat();
  provider.reset();
  loops.stop();
  record.beat();
  // Whatever is left after that is stuck in a write.
  static_cast<void>(platform.drain(std::chrono::steady_clock::now() + kDrainTimeout));
  static_cast<void>(platform.flushLog(std::chrono::steady_clock::now() + kLogTimeout));
  const int exitStatus = startError ? fail(*startError) : EXIT_SUCCESS;
  // Not by return: that would wait for a work item that is stuck in a write to the monitoring
  // socket. The kernel frees everything else.
  ::_exit(exitStatus);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& failure) {
    // What the libraries and the making of threads, loops and queues report.
    return fail(failure.what());
  }
}
