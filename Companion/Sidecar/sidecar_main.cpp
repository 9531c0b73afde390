#include <unistd.h>

#include <CLI/CLI.hpp>
#include <asio/signal_set.hpp>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <optional>
#include <string>
#include <system_error>

#include "Base/DescriptorLimit.h"
#include "Companion/Shared/CommandLine.h"
#include "Companion/Shared/QueuedOutput.h"
#include "Companion/Shared/ServiceNotifier.h"
#include "Companion/Shared/TimeText.h"
#include "Companion/Sidecar/ConnectProxy.h"
#include "Companion/Sidecar/NameLookup.h"
#include "Platform/Interface/SystemLimits.h"

namespace {

using namespace ostravel::companion;
using asio::ip::tcp;

std::optional<tcp::endpoint> parseListenAddress(const std::string& text) {
  const std::optional<HostPort> hostPort = parseHostPort(text);
  return hostPort ? literalEndpoint(*hostPort) : std::nullopt;
}

std::string droppedLine(std::size_t count, TimeStyle time) {
  return timeText(std::chrono::system_clock::now(), time) +
         " log lines dropped: " + std::to_string(count);
}

int run(int argc, char** argv) {
  CLI::App app("A local HTTP proxy that carries CONNECT tunnels.", "ostravel-sidecar");
  std::string listenText = toString(HostPort{std::string(ostravel::platform::limits::kProxyHost),
                                             ostravel::platform::limits::kProxyPort});
  bool verbose = false;
  std::string timeName = "time";
  app.add_option("--listen", listenText, "Listen here; port 0 lets the system choose")
      ->option_text("ADDRESS:PORT [" + listenText + "]");
  app.add_flag("--verbose", verbose, "Also log the end of each tunnel, with its byte counts");
  addTimeOption(app, timeName);
  if (const std::optional<int> status = readCommandLine(app, argc, argv)) {
    return *status;
  }
  const std::optional<tcp::endpoint> listenAddress = parseListenAddress(listenText);
  if (!listenAddress) {
    return failUsage(app, "--listen: not of the form 127.0.0.1:8080 or [::1]:8080: " + listenText);
  }
  const std::optional<TimeStyle> time = timeStyleNamed(timeName);
  if (!time) {
    return failTimeStyle(app, timeName);
  }

  std::signal(SIGPIPE, SIG_IGN);
  // A log that has reached its largest size must not end the tunnels (RLIMIT_FSIZE).
  std::signal(SIGXFSZ, SIG_IGN);
  ostravel::raiseDescriptorLimit();

  asio::io_context ioContext(1);
  asio::signal_set endSignals(ioContext, SIGINT, SIGTERM);
  endSignals.async_wait([&ioContext](asio::error_code, int) { ioContext.stop(); });

  // Tunnels continue when the log's reader stalls or exits.
  QueuedOutput output(STDOUT_FILENO, {.droppedLine = [time](std::size_t count) {
                        return droppedLine(count, *time);
                      }});
  NameLookup names(ioContext.get_executor());
  try {
    ConnectProxy proxy(
        ioContext, *listenAddress,
        [&names](const HostPort& target, LookupDone done) {
          return names.lookUp(target, std::move(done));
        },
        TunnelLog(
            verbose ? TunnelLog::Verbosity::beginningsAndEnds : TunnelLog::Verbosity::beginnings,
            [&output](std::string_view line) { output.writeLine(line); }, *time));
    const std::string where = toString(proxy.address());
    output.writeLine("ostravel-sidecar listening on " + where);
    ServiceNotifier service(ioContext);
    service.ready("Listening on " + where);
    ioContext.run();
    service.stopping();
  } catch (const std::system_error& error) {
    return failUsage(app, "cannot listen on " + listenText + ": " + error.code().message());
  }
  output.flush();
  // Returning would wait for the log's thread, which a stalled reader may block.
  std::_Exit(EXIT_SUCCESS);
}

}  // namespace

int main(int argc, char** argv) {
  return runProgram("ostravel-sidecar", run, argc, argv);
}
