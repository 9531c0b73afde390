#include <dispatch/dispatch.h>

#include <cstdio>

#include "Packaging/macos/Host/HostCommand.h"
#import "Packaging/macos/Host/OVHostController.h"

int main(int argc, const char* const* argv) {
  const auto command = ostravel::host::HostCommand::parse(argc, argv);
  if (!command) {
    std::fprintf(stderr, "usage: ostravel-host activate [--monitoring-socket PATH]\n"
                         "       ostravel-host deactivate\n"
                         "       ostravel-host status\n");
    return 2;
  }
  @autoreleasepool {
    [[[OVHostController alloc] initWithCommand:*command] run];
  }
  // Answers come on the main queue; the last one ends the process.
  dispatch_main();
}
