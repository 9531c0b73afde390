#include <unistd.h>

#include <CLI/CLI.hpp>
#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <variant>

#include "Base/DescriptorLimit.h"
#include "Base/LocalListener.h"
#include "Base/PrintableText.h"
#include "Companion/Fleet/FleetCommandLine.h"
#include "Companion/Fleet/FleetPublisher.h"
#include "Companion/Fleet/FleetSubscriber.h"
#include "Companion/Monitor/EventPrinter.h"
#include "Companion/Monitor/EventReceiver.h"
#include "Companion/Monitor/FleetEvent.h"
#include "Companion/Monitor/Web/WebView.h"
#include "Companion/Shared/ColumnText.h"
#include "Companion/Shared/CommandLine.h"
#include "Companion/Shared/InheritedListener.h"
#include "Companion/Shared/QueuedOutput.h"
#include "Companion/Shared/ServiceNotifier.h"

namespace {

using namespace ostravel::companion;

// See https://no-color.org: any value except an empty one disables colours.
bool isColourWanted() {
  const char* const noColour = std::getenv("NO_COLOR");
  return ::isatty(STDOUT_FILENO) == 1 && (noColour == nullptr || *noColour == '\0');
}

// Capacity of each of two buffers. A line can be longer than the largest frame, 1 MiB, because
// control characters are written as escapes. This holds thousands of usual events, a few seconds of
// a flood.
constexpr std::size_t kOutputCapacity = std::size_t{4} * 1024 * 1024;

std::string droppedLine(std::size_t count) {
  return "ostravel-monitor: events dropped: " + std::to_string(count);
}

// The reader has closed the output, which usually means that this program should end as well.
bool isOrderlyEnd(std::error_code error) {
  return !error || error == std::errc::broken_pipe;
}

// Runs the function at once and then once a second while the loop runs.
class EachSecond {
 public:
  EachSecond(asio::io_context& ioContext, std::function<void(double now)> function)
      : timer_(ioContext), function_(std::move(function)) {
    run();
  }

 private:
  void run() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    function_(std::chrono::duration<double>(now).count());
    timer_.expires_after(std::chrono::seconds(1));
    timer_.async_wait([this](asio::error_code error) {
      if (!error) {
        run();
      }
    });
  }

  asio::steady_timer timer_;
  std::function<void(double)> function_;
};

using Report = std::function<void(const std::string&)>;

FleetPublisher::Options publishedFleet(const FleetOptions& options, const Report& report) {
  constexpr std::size_t kMegabyte = std::size_t{1024} * 1024;
  return {.server = options.serverAt(options.publish),
          .folder = options.spool,
          .limits = {.folder = options.spoolMegabytes * kMegabyte},
          .report = report};
}

FleetSubscriber::Options watchedFleet(const FleetOptions& options,
                                      const std::function<void(const ReceivedEvent&)>& show,
                                      const std::function<void(std::uint64_t)>& dropped,
                                      const Report& report) {
  return {
      .server = options.serverAt(options.subscribe),
      .fromBeginning = options.fromBeginning,
      .event =
          [show, report](const FleetMessage& message) {
            const std::variant<ReceivedEvent, std::string> event = fleetEvent(message);
            if (const auto* const known = std::get_if<ReceivedEvent>(&event)) {
              show(*known);
            } else {
              report("malformed event of " + message.host + ": " + std::get<std::string>(event));
            }
          },
      .dropped = dropped,
      .report = report};
}

int run(int argc, char** argv) {
  CLI::App app("Shows the events of the extension as they happen.", "ostravel-monitor");
  std::string path;
  std::string group;
  std::string mode;
  std::string timeName = "time";
  bool withSummary = false;
  EventPrinter::Options printing;
  FleetOptions fleet;
  CLI::Option* const socketOption =
      app.add_option("--socket", path, "Listen on this UNIX socket")->option_text("PATH");
  app.add_option("--group", group, "Let the members of this group connect as well")
      ->option_text("GROUP");
  app.add_option("--mode", mode, "The mode of the socket, in octal")
      ->option_text("MODE [0660 with a group, else 0600]");
  app.add_flag("--json", printing.asJSON, "Print each event as one line of JSON");
  app.add_option("--application", printing.filter.applications,
                 "Show only the flows of applications with this text in their identifier")
      ->option_text("TEXT ...")
      ->expected(1);
  app.add_option("--host", printing.filter.hosts,
                 "Show only the flows to destinations with this text in them")
      ->option_text("TEXT ...")
      ->expected(1);
  app.add_flag("--failed", printing.filter.onlyFailures,
               "Show only what failed, once for each flow");
  app.add_flag("--summary", withSummary,
               "Sum up at the end on standard error, as always on a terminal");
  addTimeOption(app, timeName);
  addFleetOptions(app, fleet);
  WebView::Options page;
  std::string listen;
  const CLI::Option* const web =
      app.add_option("--web", listen, "Show a live page, and metrics for Prometheus, here")
          ->option_text("[ADDRESS:PORT [" + page.listen + "]]")
          ->expected(0, 1);
  app.add_option("--web-token", page.tokenFile,
                 "Take the page's token from the first line of this file")
      ->option_text("FILE");
  app.add_flag("--application-metrics", page.hasApplicationMetrics,
               "Count flows by application in the metrics as well");
  app.add_option("--control", page.controlPath, "Ask the extension on this socket for the page")
      ->option_text("PATH [" + page.controlPath + "]");
  if (const std::optional<int> status = readCommandLine(app, argc, argv)) {
    return *status;
  }
  const bool isOfFleet = !fleet.subscribe.empty();
  if (socketOption->empty() != isOfFleet) {
    return failUsage(app, isOfFleet ? "--subscribe excludes --socket" : "--socket is required");
  }

  const std::optional<ostravel::SocketAccess> access = ostravel::socketAccess(group, mode);
  if (!access) {
    return failUsage(app, "--mode: not an octal number up to 777: " + mode);
  }
  const std::optional<TimeStyle> time = timeStyleNamed(timeName);
  if (!time) {
    return failTimeStyle(app, timeName);
  }

  std::signal(SIGPIPE, SIG_IGN);
  ostravel::raiseDescriptorLimit();
  page.listener = inheritedListener();

  asio::io_context ioContext(1);
  asio::signal_set endSignals(ioContext, SIGINT, SIGTERM);
  endSignals.async_wait([&ioContext](asio::error_code, int) { ioContext.stop(); });

  QueuedOutput complaints(STDERR_FILENO, {.droppedLine = [](std::size_t count) {
                            return "ostravel-monitor: lines dropped: " + std::to_string(count);
                          }});
  // Events are received even while the reader is stalled, so that no sender has to wait.
  QueuedOutput output(STDOUT_FILENO, {.capacity = kOutputCapacity,
                                      // Written to standard error, because a program may read the
                                      // events.
                                      .droppedLine =
                                          [&complaints](std::size_t count) {
                                            complaints.writeLine(droppedLine(count));
                                            return std::string();
                                          },
                                      .failed = [&ioContext] { ioContext.stop(); }});
  const Colour colour = isColourWanted() ? Colour::terminal : Colour::none;
  printing.style = [colour, time = *time] { return EventLineStyle{colour, time, widthOfOutput()}; };
  withSummary = withSummary || (::isatty(STDOUT_FILENO) == 1 && !printing.asJSON);
  EventPrinter printer(std::move(printing),
                       [&output](std::string_view line) { output.writeLine(line); });
  // Declared here, so that the process ends without waiting for its threads.
  std::optional<WebView> view;
  try {
    if (web->count() > 0 || page.listener) {
      page.listen = listen.empty() ? page.listen : listen;
      // A fleet has many extensions.
      page.controlPath = isOfFleet ? "" : page.controlPath;
      view.emplace(page);
    }
  } catch (const std::exception& error) {
    return failUsage(app, std::string("--web: ") + error.what());
  }
  const auto show = [&printer, &view](const ReceivedEvent& event) {
    // First, so that the page and the metrics know every event whose line can be read.
    if (view) {
      view->receive(event);
    }
    printer.print(event);
  };
  const auto report = [&complaints](const std::string& text) {
    complaints.writeLine("ostravel-monitor: " + ostravel::printableText(text));
  };
  const auto countDropped = [&view](std::uint64_t events) {
    if (view) {
      view->countDropped(events);
    }
  };
  std::optional<FleetPublisher> publisher;
  std::optional<FleetSubscriber> subscriber;
  try {
    if (isOfFleet) {
      subscriber.emplace(ioContext, watchedFleet(fleet, show, countDropped, report));
    } else if (!fleet.publish.empty()) {
      publisher.emplace(publishedFleet(fleet, report));
    }
  } catch (const std::exception& error) {
    return failUsage(app, error.what());
  }
  try {
    std::optional<ostravel::LocalListener> socket;
    std::optional<EventReceiver> receiver;
    if (!isOfFleet) {
      socket.emplace(path, *access);
      receiver.emplace(
          ioContext, socket->descriptor(),
          [&show, &publisher, host = nameOfThisHost(),
           boot = thisBoot()](const ReceivedEvent& event) {
            show(event);
            if (publisher) {
              publisher->publish(fleetMessage(event, host, boot));
            }
          },
          [&report, &view](std::string_view problem) {
            if (view) {
              view->countMalformedFrame();
            }
            report("malformed frame: " + std::string(problem));
          });
      complaints.writeLine("ostravel-monitor listening on " + ostravel::printableText(path));
    }
    if (!group.empty() && !access->group) {
      complaints.writeLine("ostravel-monitor: there is no group " + ostravel::printableText(group) +
                           ", so its members cannot connect");
    }
    if (view) {
      complaints.writeLine("ostravel-monitor: the live page is " + view->url());
    }
    const EachSecond clock(ioContext, [&printer, &view, &publisher](double now) {
      printer.tick(now);
      if (view) {
        if (publisher) {
          const FleetPublisher::Counts counts = publisher->counts();
          view->setPublished(counts.waiting, counts.dropped);
        }
        view->tick(now);
      }
    });
    ServiceNotifier service(ioContext);
    service.ready(isOfFleet ? "Watching " + fleet.subscribe : "Listening on " + path);
    ioContext.run();
    service.stopping();
  } catch (const std::exception& error) {
    return failUsage(app, "cannot listen on " + path + ": " + error.what());
  }
  // Destroyed now: unsent events are then in the spool.
  publisher.reset();
  subscriber.reset();
  output.flush();
  int status = EXIT_SUCCESS;
  if (!isOrderlyEnd(output.error())) {
    complaints.writeLine("ostravel-monitor: cannot write: " + output.error().message());
    status = EXIT_FAILURE;
  }
  if (withSummary) {
    complaints.writeLine("ostravel-monitor: " + printer.summary().text());
    for (const std::string& outage : printer.outages()) {
      complaints.writeLine("ostravel-monitor: " + outage);
    }
  }
  complaints.flush();
  // Returning would wait for stalled readers.
  std::_Exit(status);
}

}  // namespace

int main(int argc, char** argv) {
  return runProgram("ostravel-monitor", run, argc, argv);
}
