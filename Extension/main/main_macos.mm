#import <NetworkExtension/NetworkExtension.h>
#include <dispatch/dispatch.h>

#include <csignal>
#include <memory>

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#import "Platform/macOS/MacPlatform.h"
#import "Platform/macOS/Provider/OVPacketTunnelProvider.h"

using namespace ostravel;

int main() {
  // A peer that closes while we write to it must not end the process.
  std::signal(SIGPIPE, SIG_IGN);

  // Never destroyed: the core may still be working when the process ends.
  static macos::MacPlatform& platform = *new macos::MacPlatform();
  macos::setProviderFactory([](platform::ProviderContext& context) {
    return std::make_unique<PacketTunnelProvider>(platform, context);
  });

  @autoreleasepool {
    // The system creates the principal object and calls it from now on.
    [NEProvider startSystemExtensionMode];
  }
  dispatch_main();
}
