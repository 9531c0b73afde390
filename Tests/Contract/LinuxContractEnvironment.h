#pragma once

#include <memory>

#include "Platform/Linux/Interception/InterceptionTable.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/Relay/EventLoopGroup.h"
#include "Platform/Linux/Relay/RedirectPath.h"
#include "Platform/Linux/Services/DescriptorBudget.h"
#include "Tests/Contract/SocketContractEnvironment.h"

namespace ostravel::contract {

// The Linux platform with real threads, sockets and time, in the network namespace that the program
// has made for itself. Only the packet queue is simulated: an application connects, with the mark
// that its first packet would have been given, when that packet is released.
class LinuxContractEnvironment final : public SocketContractEnvironment {
 public:
  LinuxContractEnvironment();
  ~LinuxContractEnvironment() override;

  platform::Platform& platform() override { return platform_; }
  void settle() override;
  FlowEnds makeFlow(const std::string& signingIdentifier) override;
  bool holdsFirstPacket() const override { return true; }
  std::shared_ptr<platform::TCPConnection> connect(const platform::HostEndpoint& endpoint) override;

 private:
  linuxplatform::LinuxPlatform platform_;
  linuxplatform::DescriptorBudget descriptors_;
  linuxplatform::EventLoopGroup loops_;
  std::unique_ptr<linuxplatform::InterceptionTable> table_;
  // The group holds it weakly.
  const std::shared_ptr<linuxplatform::RedirectPath::Watcher> watcher_;
  unsigned nextLoop_ = 0;
};

}  // namespace ostravel::contract
