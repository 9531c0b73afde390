#import "Platform/macOS/Provider/OVPacketTunnelProvider.h"

#include <utility>

#import "Platform/macOS/Dispatch/CompletionBlocks.h"
#import "Platform/macOS/Flow/SystemTCPFlow.h"
#import "Platform/macOS/Flow/SystemUDPFlow.h"
#import "Platform/macOS/Foundation/FoundationError.h"
#import "Platform/macOS/Provider/ConfigurationValues.h"
#import "Platform/macOS/Provider/SystemProviderContext.h"

namespace ostravel::macos {

namespace {

using StopBlock = void (^)(void);

ProviderFactory& providerFactory() {
  static ProviderFactory& factory = *new ProviderFactory();
  return factory;
}

// The context is held as well: the provider's last work may need it after the principal object has
// been destroyed.
std::shared_ptr<platform::TransparentProxyProvider> makeProvider(
    const std::shared_ptr<SystemProviderContext>& context) {
  auto provider = providerFactory()(*context);
  return {provider.release(), [context](platform::TransparentProxyProvider* ending) {
            const std::unique_ptr<platform::TransparentProxyProvider> owner(ending);
          }};
}

std::shared_ptr<platform::AppProxyFlow> makeFlow(NEAppProxyFlow* flow) {
  if ([flow isKindOfClass:[NEAppProxyTCPFlow class]]) {
    return std::make_shared<SystemTCPFlow>(static_cast<NEAppProxyTCPFlow*>(flow));
  }
  if ([flow isKindOfClass:[NEAppProxyUDPFlow class]]) {
    return std::make_shared<SystemUDPFlow>(static_cast<NEAppProxyUDPFlow*>(flow));
  }
  return std::make_shared<SystemOtherFlow>(flow);
}

}  // namespace

void setProviderFactory(ProviderFactory factory) {
  providerFactory() = std::move(factory);
}

}  // namespace ostravel::macos

@implementation OVPacketTunnelProvider

- (instancetype)init {
  self = [super init];
  if (self != nil) {
    _context = std::make_shared<ostravel::macos::SystemProviderContext>(self);
    _provider = ostravel::macos::makeProvider(_context);
  }
  return self;
}

- (void)dealloc {
  _provider.reset();
  [super dealloc];
}

- (void)startProxyWithOptions:(NSDictionary<NSString*, id>*)options
            completionHandler:(void (^)(NSError* error))completionHandler {
  const auto handler =
      ostravel::macos::Reference<ostravel::macos::ErrorBlock>::retaining(completionHandler);
  @autoreleasepool {
    auto completion = _starts.admit([handler](const ostravel::platform::OptionalError& error) {
      @autoreleasepool {
        handler.get()(ostravel::macos::makeNSError(error));
      }
    });
    if (completion) {
      // Held here and below, because the call may release the last reference to this object.
      const auto provider = _provider;
      provider->startProxy(ostravel::macos::configurationFrom(options), *std::move(completion));
    }
  }
}

- (void)stopProxyWithReason:(NEProviderStopReason)reason
          completionHandler:(void (^)(void))completionHandler {
  const auto handler =
      ostravel::macos::Reference<ostravel::macos::StopBlock>::retaining(completionHandler);
  @autoreleasepool {
    _starts.noteStop();
    const auto provider = _provider;
    provider->stopProxy(static_cast<ostravel::platform::ProviderStopReason>(reason),
                        [handler] { handler.get()(); });
  }
}

// Also called for UDP flows, by the system's default handling of those.
- (BOOL)handleNewFlow:(NEAppProxyFlow*)flow {
  @autoreleasepool {
    const auto provider = _provider;
    return provider->handleNewFlow(ostravel::macos::makeFlow(flow));
  }
}

@end
