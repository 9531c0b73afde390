#import "Tests/Platform/macOS/Provider/PrincipalObject.h"

#include <gtest/gtest.h>

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#import "Platform/macOS/MacPlatform.h"
#import "Platform/macOS/Provider/OVPacketTunnelProvider.h"
#include "Tests/Support/WaitUntil.h"

namespace ostravel::macos::test {

using testing::waitUntil;

PrincipalObject::PrincipalObject() {
  // For the life of the process, as in the process entry.
  static MacPlatform& platform = *new MacPlatform();
  setProviderFactory([](platform::ProviderContext& context) {
    return std::make_unique<PacketTunnelProvider>(platform, context);
  });
  @autoreleasepool {
    object_ = Reference<NETransparentProxyProvider*>::adopting(
        [[NSClassFromString(@"OVPacketTunnelProvider") alloc] init]);
  }
}

void PrincipalObject::configure(NSDictionary* providerConfiguration) {
  @autoreleasepool {
    auto* const protocol = [[[NETunnelProviderProtocol alloc] init] autorelease];
    [protocol setProviderConfiguration:providerConfiguration];
    configureOtherwise(protocol);
  }
}

void PrincipalObject::configureOtherwise(NEVPNProtocol* protocol) {
  standin::setProtocolConfiguration(object_.get(), protocol);
}

std::shared_ptr<Answer> PrincipalObject::start(NSDictionary* options) {
  const auto answer = std::make_shared<Answer>();
  @autoreleasepool {
    [object_.get() startProxyWithOptions:options
                       completionHandler:^(NSError* error) {
                         {
                           const std::lock_guard guard(answer->lock);
                           answer->lastError = Reference<NSError*>::retaining(error);
                         }
                         ++answer->count;
                       }];
  }
  return answer;
}

void PrincipalObject::startUp() {
  const auto answer = start();
  ASSERT_TRUE(waitUntil([&answer] { return answer->count > 0; }));
  ASSERT_EQ(answer->error().get(), nil);
}

std::shared_ptr<Answer> PrincipalObject::stop(NEProviderStopReason reason) {
  const auto answer = std::make_shared<Answer>();
  @autoreleasepool {
    [object_.get() stopProxyWithReason:reason
                     completionHandler:^{
                       ++answer->count;
                     }];
  }
  return answer;
}

bool PrincipalObject::offer(NEAppProxyFlow* flow) {
  @autoreleasepool {
    if ([flow isKindOfClass:[NEAppProxyUDPFlow class]]) {
      return [object_.get() handleNewUDPFlow:static_cast<NEAppProxyUDPFlow*>(flow)
                       initialRemoteEndpoint:standin::makeHostEndpoint(@"192.0.2.1", @"443")];
    }
    const auto record = flow != nil ? standin::recordOf(flow) : nullptr;
    const bool isTaken = [object_.get() handleNewFlow:flow];
    if (isTaken) {
      record->noteTaken();
    }
    return isTaken;
  }
}

}  // namespace ostravel::macos::test
