#include <unistd.h>

#include <CLI/CLI.hpp>
#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <system_error>

#include "Companion/CommandLine.h"
#include "Companion/DescriptorLimit.h"
#include "Companion/EventLine.h"
#include "Companion/EventReceiver.h"
#include "Companion/EventSocket.h"
#include "Companion/LineOutput.h"
#include "Companion/PrintableText.h"

namespace {

using namespace ostravel::companion;

// See https://no-color.org: what the variable says does not matter, only that it is there.
Colour colourOfOutput() {
  const bool wanted = ::isatty(STDOUT_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr;
  return wanted ? Colour::kTerminal : Colour::kNone;
}

// A reader that went away and a signal that came while we waited for a slow one are both a person
// ending the program.
bool isOrderlyEnd(std::error_code error) {
  return !error || error == std::errc::broken_pipe || error == std::errc::interrupted;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Shows the events of the extension as they happen.", "ostravel-monitor");
  std::string path;
  bool asJson = false;
  app.add_option("--socket", path, "Listen on this UNIX socket")->option_text("PATH")->required();
  app.add_flag("--json", asJson, "Print each event as one line of JSON");
  if (const std::optional<int> status = readCommandLine(app, argc, argv)) {
    return *status;
  }

  std::signal(SIGPIPE, SIG_IGN);
  raiseDescriptorLimit();

  asio::io_context ioContext(1);
  asio::signal_set endSignals(ioContext, SIGINT, SIGTERM);
  endSignals.async_wait([&ioContext](asio::error_code, int) { ioContext.stop(); });

  const LineOutput output(STDOUT_FILENO);
  const LineOutput complaints(STDERR_FILENO);
  const auto complain = [&complaints](const std::string& text) {
    static_cast<void>(complaints.writeLine(text));
  };
  const Colour colour = colourOfOutput();
  std::error_code outputError;
  try {
    const EventSocket socket(path);
    const EventReceiver receiver(
        ioContext, socket.descriptor(),
        [&output, &outputError, &ioContext, asJson, colour](const ReceivedEvent& event) {
          outputError = output.writeLine(asJson ? event.json : eventLine(event, colour));
          if (outputError) {
            ioContext.stop();
          }
        },
        [&complain](std::string_view problem) {
          complain("ostravel-monitor: malformed frame: " + printableText(problem));
        });
    complain("ostravel-monitor listening on " + printableText(path));
    ioContext.run();
  } catch (const std::exception& error) {
    return failUsage(app, "cannot listen on " + path + ": " + error.what());
  }
  if (!isOrderlyEnd(outputError)) {
    complain("ostravel-monitor: cannot write: " + outputError.message());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
