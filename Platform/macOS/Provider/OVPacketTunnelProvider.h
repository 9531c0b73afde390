#pragma once

#import <NetworkExtension/NetworkExtension.h>

#include <functional>
#include <memory>

#include "Platform/Interface/TransparentProxyProvider.h"
#import "Platform/macOS/Provider/StartCoalescer.h"

namespace ostravel::macos {

class SystemProviderContext;

// Makes the core's provider for a context that outlives it.
using ProviderFactory =
    std::function<std::unique_ptr<platform::TransparentProxyProvider>(platform::ProviderContext&)>;

// The system creates the principal object by the name of its class, without arguments, so the
// factory is stored here before the process enters system-extension mode. Calling this also makes
// the linker include the class.
void setProviderFactory(ProviderFactory factory);

}  // namespace ostravel::macos

// The principal class, named in the Info.plist of the extension. Owns one provider of the core and
// forwards the system's calls to it; repeated starts reach it once. The system owns the object, and
// calls it on threads that it does not document.
@interface OVPacketTunnelProvider : NETransparentProxyProvider {
 @private
  // Shared with the provider, so that it outlives it.
  std::shared_ptr<ostravel::macos::SystemProviderContext> _context;
  std::shared_ptr<ostravel::platform::TransparentProxyProvider> _provider;
  ostravel::macos::StartCoalescer _starts;
}
@end
