#import <NetworkExtension/NetworkExtension.h>
#include <dispatch/dispatch.h>

#include <csignal>
#include <memory>

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#import "Platform/macOS/MacPlatform.h"
#import "Platform/macOS/Provider/OVPacketTunnelProvider.h"

using namespace ostravel;

int main() {
  // A peer that goes away while it is written to must not end the process.
  std::signal(SIGPIPE, SIG_IGN);

  // Never destroyed: work of the core may be under way until the very end of the process.
  static macos::MacPlatform& platform = *new macos::MacPlatform();
  macos::setProviderFactory([](platform::ProviderContext& context) {
    return std::make_unique<PacketTunnelProvider>(platform, context);
  });

  @autoreleasepool {
    // From here on the system makes the principal object and calls it.
    [NEProvider startSystemExtensionMode];
  }
  dispatch_main();
}
