#include <fcntl.h>
#include <sys/resource.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <future>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "Base/FileDescriptor.h"
#include "Base/LineOutput.h"
#include "Base/PrintableText.h"
#include "Extension/FilterDataProvider/BuiltInLists.h"
#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#include "Extension/main/CommandLine.h"
#include "Extension/main/ConfigurationCheck.h"
#include "Extension/main/ConfigurationFile.h"
#include "Extension/main/ControlAnswers.h"
#include "Extension/main/ControlSocket.h"
#include "Extension/main/Privileges.h"
#include "Extension/main/ProxyingState.h"
#include "Extension/main/ServiceStatus.h"
#include "Extension/main/SystemCallFilter.h"
#include "Extension/main/SystemCheck.h"
#include "Platform/Linux/Control/ControlServer.h"
#include "Platform/Linux/Kernel/ConntrackEntries.h"
#include "Platform/Linux/Kernel/NetfilterBatch.h"
#include "Platform/Linux/Kernel/PacketResender.h"
#include "Platform/Linux/Kernel/SocketDiagnostics.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/LinuxProviderContext.h"
#include "Platform/Linux/Liveness/Guardian.h"
#include "Platform/Linux/Liveness/Heartbeat.h"
#include "Platform/Linux/Liveness/HeartbeatRecord.h"
#include "Platform/Linux/Liveness/HeartbeatThreads.h"
#include "Platform/Linux/Relay/EventLoopGroup.h"
#include "Platform/Linux/Services/DescriptorBudget.h"
#include "Platform/Linux/Services/JournalLog.h"
#include "Platform/Linux/Statistics/FlowJournal.h"

namespace {

using namespace ostravel;
using namespace std::chrono_literals;

constexpr int kExitCannotRun = 2;

// How long the last events may take to reach the monitoring socket: a companion that has stopped
// reading must not keep the process from ending.
constexpr auto kDrainTimeout = 500ms;

// The same for the last log lines.
constexpr auto kLogTimeout = 500ms;

// Prints the one line that says why the process ends; returns its exit status.
int fail(std::string_view reason) {
  const std::string line = "ostravel-extension: " + printableText(reason) + '\n';
  static_cast<void>(LineOutput(STDERR_FILENO).writeAll(line, kLogTimeout));
  return kExitCannotRun;
}

// Without an allocation, because there is no memory left.
int failForMemory() {
  constexpr std::string_view kLine = "ostravel-extension: there is not enough memory\n";
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, kLine.data(), kLine.size());
  return kExitCannotRun;
}

// Adds what to do about it.
int failForDescriptors(const std::string& reason) {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  return fail(
      "the limit of " + std::to_string(limit.rlim_max) +
      " open files is too low: raise it with ulimit -n, or with LimitNOFILE= of the unit (" +
      reason + ")");
}

int fail(const platform::Error& error) {
  const bool isLimit = error.domain == platform::kPOSIXErrorDomain && error.code == EMFILE;
  return isLimit ? failForDescriptors(error.localizedDescription)
                 : fail(error.localizedDescription);
}

// Only the main thread receives signals; every other thread inherits the mask. Neither a peer that
// closes while we write to it nor a log that has reached its largest size (RLIMIT_FSIZE) may end
// the process.
sigset_t takeOverSignals() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  // It may be ignored, which is inherited from the parent.
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

// A terminal that is closed sends SIGHUP to end the programs started in it. A service has no
// terminal (tty(4)); it receives SIGHUP to reload its configuration.
bool hasTerminal() {
  const FileDescriptor terminal(::open("/dev/tty", O_RDONLY | O_NOCTTY | O_CLOEXEC));
  return terminal.isOpen();
}

// Absent if no guardian is wanted. An error is reported once there is a log.
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

void report(platform::Log& log, const std::vector<std::string>& problems) {
  for (const std::string& problem : problems) {
    log.error("OstravelProxy: %{public}s", {problem});
  }
}

using LogSink = linuxplatform::LinuxPlatform::LogSink;

bool isJournalMissing(const CommandLine::Options& options) {
  return options.logSink == LogSink::journal && !linuxplatform::JournalLog::isThere();
}

// Prints requested output, however slowly it is read.
int print(const std::string& text) {
  return LineOutput(STDOUT_FILENO).writeAll(text, 60s) ? EXIT_FAILURE : EXIT_SUCCESS;
}

int check(const CommandLine::Options& options) {
  const auto report = checkSystem(options);
  static_cast<void>(print(options.asJSON ? report.json() : report.text()));
  return report.exitStatus();
}

int printRules(const CommandLine::Options& options) {
  const auto rules = plannedRules(options);
  return rules ? print(*rules) : fail(rules.error());
}

// Not with a sanitizer, which runs programs and inspects its threads at the end.
platform::OptionalError restrictSystemCalls(platform::OptionalError (*restrict)()) {
#ifdef OSTRAVEL_SANITIZED
  static_cast<void>(restrict);
  return std::nullopt;
#else
  return restrict();
#endif
}

// While other programs have the kernel track connections, those that the extension has redirected
// are remembered for seconds after a kill has reset them: new ones with the same addresses and
// ports would be redirected to a listener that is gone.
linuxplatform::Guardian::CleanUp forgetRedirections() {
  // Opened now, because that takes more permissions than its use.
  auto opened = linuxplatform::SocketDiagnostics::open();
  if (!opened) {
    return [] {};
  }
  return [diagnostics = std::shared_ptr(*std::move(opened))] {
    linuxplatform::ConntrackEntries().removeDeadRedirections(
        [&diagnostics](const linuxplatform::SocketEndpoint& endpoint) {
          return diagnostics->mayHaveListener(endpoint);
        });
  };
}

// Failures are ignored: the guardian watches with more permissions as well.
linuxplatform::Guardian::CleanUp prepareGuardian(linuxplatform::Privileges::Inspection inspection) {
  auto cleanUp = forgetRedirections();
  static_cast<void>(linuxplatform::Privileges::giveUpUnused(inspection));
  static_cast<void>(restrictSystemCalls(linuxplatform::SystemCallFilter::restrictGuardian));
  return cleanUp;
}

// The filter of the process is in effect, so these of its threads can be installed too.
void restrictRelays(linuxplatform::EventLoopGroup& loops,
                    linuxplatform::Privileges::Inspection inspection) {
  auto* const restrict = inspection == linuxplatform::Privileges::Inspection::own
                             ? linuxplatform::SystemCallFilter::restrictInspectingRelay
                             : linuxplatform::SystemCallFilter::restrictRelay;
  for (unsigned index = 0; index < loops.size(); ++index) {
    loops.loop(index).post([restrict] { static_cast<void>(restrictSystemCalls(restrict)); });
  }
}

// To reset thousands of tunnels may take longer than the guardian waits for a step. While there are
// fewer and fewer, it goes on.
void stopProvider(PacketTunnelProvider& provider,
                  const linuxplatform::DescriptorBudget& descriptors,
                  linuxplatform::HeartbeatRecord& record) {
  // On this thread if there can be no other.
  auto stopping = std::async([&provider] {
    std::promise<void> stopped;
    provider.stopProxy(platform::ProviderStopReason::userInitiated,
                       [&stopped] { stopped.set_value(); });
    stopped.get_future().wait();
  });
  constexpr auto kInterval = linuxplatform::Guardian::kStopLimit / 8.0;
  std::size_t inUse = descriptors.inUse();
  while (stopping.wait_for(kInterval) == std::future_status::timeout) {
    const std::size_t before = std::exchange(inUse, descriptors.inUse());
    if (inUse < before) {
      record.beat();
    }
  }
  stopping.get();
}

int run(int argc, char** argv) {
  const auto commandLine = CommandLine::parse(argc, argv);
  if (!commandLine.options) {
    return commandLine.exitStatus;
  }
  if (commandLine.options->job == CommandLine::Job::check) {
    return check(*commandLine.options);
  }
  if (commandLine.options->job == CommandLine::Job::dryRun) {
    return printRules(*commandLine.options);
  }
  if (const auto obstacle = descriptorObstacle()) {
    return fail(*obstacle);
  }
  const auto inspection = commandLine.options->inspection();
  // As early as possible: the guardian keeps a copy of the memory in use.
  linuxplatform::HeartbeatRecord record;
  MaybeGuardian guardian;
  std::shared_ptr<mnl_socket> guardedSocket;
  if (commandLine.options->hasGuardian) {
    // Without netfilter, the interception fails later and says what is missing.
    if (auto socket = linuxplatform::openNetfilterSocket()) {
      guardedSocket = *std::move(socket);
    }
    guardian = linuxplatform::Guardian::start(
        record, guardedSocket ? linuxplatform::descriptorOf(*guardedSocket) : -1,
        [inspection] { return prepareGuardian(inspection); });
  }
  const auto configuration =
      linuxplatform::readProviderConfiguration(commandLine.options->configurationPath);
  if (!configuration) {
    return fail(configuration.error());
  }
  std::optional<linuxplatform::ControlSocket> controlSocket;
  const auto privileges = linuxplatform::Privileges::ofThisProcess();
  if (const auto obstacle = privileges.obstacle(inspection)) {
    return fail(*obstacle);
  }
  const auto resender = linuxplatform::PacketResender::open();
  if (commandLine.options->hasControl) {
    controlSocket.emplace(commandLine.options->controlPath);
  }
  if (const auto error = linuxplatform::Privileges::giveUpUnused(inspection)) {
    return fail(*error);
  }
  const auto unrestricted = restrictSystemCalls(linuxplatform::SystemCallFilter::install);
  const sigset_t takenSignals = takeOverSignals();
  const bool endsOnHangUp = hasTerminal();

  // The object graph, outermost first: each outlives those below it.
  const bool isJournalReplaced = isJournalMissing(*commandLine.options);
  linuxplatform::LinuxPlatform platform(
      {.logSink = isJournalReplaced ? LogSink::standardError : commandLine.options->logSink,
       .logLevel = commandLine.options->logLevel ? commandLine.options->logLevel
                                                 : linuxplatform::logLevelOf(*configuration),
       .marks = commandLine.options->marks});
  platform.writeLogOnCrash();
  if (isJournalReplaced) {
    report(platform.defaultLog(), {"There is no journal: the log goes to standard error"});
  }
  report(platform.defaultLog(), privileges.losses(inspection));
  if (unrestricted) {
    report(platform.defaultLog(), {unrestricted->localizedDescription});
  }
  if (*configuration) {
    report(platform.defaultLog(),
           linuxplatform::configurationWarnings(**configuration,
                                                commandLine.options->configurationPath.value_or(
                                                    linuxplatform::kDefaultConfigurationPath)));
  }
  if (controlSocket && controlSocket->problem()) {
    platform.defaultLog().info("OstravelProxy: There is %{public}s", {*controlSocket->problem()});
  }
  linuxplatform::ServiceStatus status(
      [](const std::string& assignments) { ::sd_notify(0, assignments.c_str()); });
  // Set once the provider exists, which needs the context first.
  std::weak_ptr<PacketTunnelProvider> watchedProvider;
  const ControlAnswers* observedAnswers = nullptr;
  linuxplatform::ProxyingState proxying;
  linuxplatform::DescriptorBudget descriptors;
  linuxplatform::FlowJournal journal(platform.clock(), linuxplatform::kMaximumEventLoops,
                                     &platform.defaultLog());
  linuxplatform::EventLoopGroup loops(descriptors, commandLine.options->marks);
  restrictRelays(loops, inspection);
  linuxplatform::Heartbeat heartbeat(record);
  const auto memberships = joinHeartbeat(heartbeat, loops, platform.workers());
  const auto exempt = built_in::bypassAppIds();
  linuxplatform::LinuxProviderContext context(
      platform,
      {.loops = loops,
       .descriptors = descriptors,
       .heartbeat = heartbeat,
       .journal = journal,
       .onAlive =
           [&status, &watchedProvider, &observedAnswers, &proxying] {
             observedAnswers->observe();
             const auto provider = watchedProvider.lock();
             status.beat(provider ? provider->isGateOpen() : std::nullopt, proxying.state().reason,
                         std::chrono::steady_clock::now());
           },
       .proxyUsers = commandLine.options->proxyUsers,
       .resender = resender ? *resender : nullptr,
       // An application must not be able to exempt itself by its name.
       .reservedIdentifiers = {exempt.begin(), exempt.end()},
       .onProxyWatched =
           [&status, &proxying, &platform](const std::string& proxy, const std::string& reason) {
             status.setProxy(proxy);
             proxying.setProxy(proxy, reason, platform.clock().secondsSince1970());
           },
       .names = commandLine.options->names,
       .guardedSocket = guardedSocket,
       .processes = commandLine.options->processTables([&platform](const std::string& warning) {
         platform.defaultLog().error("OstravelProxy: %{public}s", {warning});
       })},
      *configuration);
  auto provider = std::make_shared<PacketTunnelProvider>(platform, context);
  context.setProvider(provider);
  watchedProvider = provider;

  std::atomic<const char*> guardianState = "off";
  const auto lookAfterGuardian = [&guardian, &guardianState, &platform, &commandLine] {
    reportMissingGuardian(guardian, platform.defaultLog());
    const bool isWanted = commandLine.options->hasGuardian;
    guardianState = guardian ? "running" : isWanted ? "ended" : "off";
  };
  lookAfterGuardian();
  const ControlAnswers answers({.platform = platform,
                                .context = context,
                                .journal = journal,
                                .loops = loops,
                                .descriptors = descriptors,
                                .proxying = proxying,
                                .names = commandLine.options->names,
                                .provider = provider,
                                .guardian = [&guardianState] { return guardianState.load(); },
                                .configuration = *configuration,
                                .configurationPath = commandLine.options->configurationPath});
  observedAnswers = &answers;
  std::optional<linuxplatform::ControlServer> control;
  if (controlSocket && !controlSocket->problem()) {
    control.emplace(
        controlSocket->descriptor(), controlSocket->group(),
        [&answers](const linuxplatform::ControlRequest& request,
                   const linuxplatform::PeerAccess& /*peer*/) { return answers.answer(request); });
  }
  heartbeat.start();

  std::promise<platform::OptionalError> started;
  provider->startProxy(std::nullopt, [&started](platform::OptionalError error) {
    started.set_value(std::move(error));
  });
  const auto startError = started.get_future().get();
  if (!startError) {
    // The guardian may have ended before its signal was taken over.
    for (int signal = SIGCHLD; signal == SIGCHLD || (signal == SIGHUP && !endsOnHangUp);
         signal = waitForSignal(takenSignals)) {
      if (signal == SIGCHLD) {
        lookAfterGuardian();
      } else {
        context.reloadRegistrations();
      }
    }
    ::sd_notify(0, "STOPPING=1\nSTATUS=Ending");
  }

  control.reset();
  controlSocket.reset();
  // From now on each finished step is a beat.
  heartbeat.stop();
  stopProvider(*provider, descriptors, record);
  record.beat();
  context.stopInterception();
  record.beat();
  provider.reset();
  loops.stop();
  record.beat();
  // Items that still run are stuck in a write.
  static_cast<void>(platform.drain(std::chrono::steady_clock::now() + kDrainTimeout));
  static_cast<void>(platform.flushLog(std::chrono::steady_clock::now() + kLogTimeout));
  const int exitStatus = startError ? fail(*startError) : EXIT_SUCCESS;
  // Returning would wait for a work item that is stuck in a write to the monitoring socket. The
  // kernel frees everything else.
  ::_exit(exitStatus);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::system_error& failure) {
    return failure.code() == std::errc::too_many_files_open ? failForDescriptors(failure.what())
                                                            : fail(failure.what());
  } catch (const std::bad_alloc&) {
    return failForMemory();
  } catch (const std::exception& failure) {
    // Thrown by libraries, and by creating threads, loops and queues.
    return fail(failure.what());
  }
}
