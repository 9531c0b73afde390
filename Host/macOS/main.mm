#include <CoreFoundation/CoreFoundation.h>

#include <cstdio>
#include <variant>

#include "Host/macOS/HostCommand.h"
#import "Host/macOS/OVHostController.h"

using ostravel::host::CommandLineError;
using ostravel::host::HelpRequest;
using ostravel::host::HostCommand;

namespace {

constexpr int kExitUsage = 2;

constexpr const char* kUsage =
    "usage: ostravel-host activate [--monitoring-socket [PATH]]\n"
    "       ostravel-host deactivate\n"
    "       ostravel-host status\n"
    "\n"
    "activate    installs or updates the extension and its configuration, and starts the proxy.\n"
    "            Events go to the socket at PATH, by default\n"
    "            /Library/Application Support/Ostravel/monitoring.sock, the folder that the\n"
    "            extension's sandbox admits; without the option they go nowhere.\n"
    "deactivate  stops the proxy and removes the configuration and the extension.\n"
    "status      tells the extension's version and state, and whether the proxy runs.\n";

}  // namespace

int main(int argc, const char* const* argv) {
  const auto parsed = HostCommand::parse(argc, argv);
  if (const auto* const error = std::get_if<CommandLineError>(&parsed)) {
    std::fprintf(stderr, "ostravel-host: %s\n%s", error->reason.c_str(), kUsage);
    return kExitUsage;
  }
  if (std::holds_alternative<HelpRequest>(parsed)) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  // Some steps wait for the user, who must see the preceding lines even through a pipe.
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  @autoreleasepool {
    [[[OVHostController alloc] initWithCommand:std::get<HostCommand>(parsed)] run];
  }
  // Answers arrive on the main queue, which the main thread's run loop serves; the last one ends
  // the process.
  while (true) {
    CFRunLoopRun();
  }
}
