#pragma once

#import <NetworkExtension/NetworkExtension.h>

#include <memory>

#import "Platform/macOS/Foundation/Reference.h"
#import "Platform/macOS/MacPlatform.h"
#import "Platform/macOS/Provider/SystemProviderContext.h"
#include "Tests/Contract/ContractEnvironment.h"
#include "Tests/Contract/SocketPeers.h"

namespace ostravel::contract {

// The macOS platform over the stand-in for the system's frameworks: real threads, sockets and time.
class MacContractEnvironment final : public ContractEnvironment {
 public:
  MacContractEnvironment();

  platform::Platform& platform() override { return platform_; }
  bool waitUntil(const Condition& condition) override;
  void settle() override;
  std::chrono::nanoseconds now() const override;
  void spend(std::chrono::nanoseconds duration) override;
  FlowEnds makeFlow(const std::string& signingIdentifier) override;
  // The system has accepted the connection before it offers the flow.
  bool holdsFirstPacket() const override { return false; }
  std::shared_ptr<platform::TCPConnection> connect(const platform::HostEndpoint& endpoint) override;
  platform::HostEndpoint listeningEndpoint() override;
  std::shared_ptr<ContractPeer> acceptPeer() override;
  platform::HostEndpoint refusingEndpoint() override;
  platform::HostEndpoint silentEndpoint() override;
  std::vector<std::byte> listeningAddress() override { return peers_.listeningAddress(); }
  std::vector<std::byte> refusingAddress() override { return peers_.refusingAddress(); }
  std::vector<std::byte> silentAddress() override { return peers_.silentAddress(); }
  std::vector<std::byte> listeningLocalAddress() override { return peers_.listeningLocalAddress(); }
  std::vector<std::byte> refusingLocalAddress() override { return peers_.refusingLocalAddress(); }
  std::vector<std::string> localDeliveries() override { return peers_.localDeliveries(); }

 private:
  SocketPeers peers_;
  macos::MacPlatform platform_;
  const macos::Reference<NETransparentProxyProvider*> provider_;
  macos::SystemProviderContext context_;
};

}  // namespace ostravel::contract
