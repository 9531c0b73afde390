#pragma once

#include <memory>

#include "Platform/Linux/Interception/InterceptionTable.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/Relay/EventLoopGroup.h"
#include "Platform/Linux/Services/DescriptorBudget.h"
#include "Tests/Contract/ContractEnvironment.h"
#include "Tests/Contract/SocketPeers.h"

namespace ostravel::contract {

// The Linux platform with real threads, sockets and time, in the network namespace that the program
// has made for itself. Only the packet queue is played: an application connects, with the mark that
// its first packet would have been given, when that packet is released.
class LinuxContractEnvironment final : public ContractEnvironment {
 public:
  LinuxContractEnvironment();
  ~LinuxContractEnvironment() override;

  platform::Platform& platform() override { return platform_; }
  bool waitUntil(const Condition& condition) override;
  void settle() override;
  std::chrono::nanoseconds now() const override;
  void spend(std::chrono::nanoseconds duration) override;
  FlowEnds makeFlow(const std::string& signingIdentifier) override;
  bool holdsFirstPacket() const override { return true; }
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
  linuxplatform::LinuxPlatform platform_;
  linuxplatform::DescriptorBudget descriptors_;
  linuxplatform::EventLoopGroup loops_;
  std::unique_ptr<linuxplatform::InterceptionTable> table_;
  unsigned nextLoop_ = 0;
};

}  // namespace ostravel::contract
