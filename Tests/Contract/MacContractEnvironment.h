#pragma once

#import <NetworkExtension/NetworkExtension.h>

#include <memory>

#import "Platform/macOS/Foundation/Reference.h"
#import "Platform/macOS/MacPlatform.h"
#import "Platform/macOS/Provider/SystemProviderContext.h"
#include "Tests/Contract/SocketContractEnvironment.h"

namespace ostravel::contract {

// The macOS platform over the stand-in for the system's frameworks: real threads, sockets and time.
class MacContractEnvironment final : public SocketContractEnvironment {
 public:
  MacContractEnvironment();

  platform::Platform& platform() override { return platform_; }
  void settle() override;
  FlowEnds makeFlow(const std::string& signingIdentifier) override;
  // The system has accepted the connection before it offers the flow.
  bool holdsFirstPacket() const override { return false; }
  std::shared_ptr<platform::TCPConnection> connect(const platform::HostEndpoint& endpoint) override;

 private:
  macos::MacPlatform platform_;
  const macos::Reference<NETransparentProxyProvider*> provider_;
  macos::SystemProviderContext context_;
};

}  // namespace ostravel::contract
