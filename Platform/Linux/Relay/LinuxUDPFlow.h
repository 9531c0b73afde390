#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Interface/AppProxyUDPFlow.h"
#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Relay/HeldPacket.h"
#include "Platform/Linux/Statistics/FlowRecord.h"

namespace ostravel::linuxplatform {

// The first datagram that an application sends from a socket. Closing both directions refuses it
// with ICMP port unreachable; otherwise its destruction leaves it to the system. Usable from any
// thread.
class LinuxUDPFlow final : public platform::AppProxyUDPFlow {
 public:
  // identifier: valid UTF-8, empty if unknown. record: null if none is kept.
  LinuxUDPFlow(const FlowTuple& tuple, std::string identifier, std::unique_ptr<HeldPacket> packet,
               Reference<FlowRecord> record = nullptr);

  std::string sourceAppSigningIdentifier() const override { return identifier_; }
  std::optional<platform::HostEndpoint> localEndpoint() const override;
  platform::FlowObserver* observer() override { return record_.get(); }

  void closeRead(platform::OptionalError error) override;
  void closeWrite(platform::OptionalError error) override;

 private:
  void close(std::uint8_t direction);

  const SocketEndpoint source_;
  const std::string identifier_;
  const std::unique_ptr<HeldPacket> packet_;
  const Reference<FlowRecord> record_;
  std::atomic<std::uint8_t> closed_ = 0;
};

}  // namespace ostravel::linuxplatform
