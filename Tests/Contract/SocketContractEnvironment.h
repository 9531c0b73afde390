#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Tests/Contract/ContractEnvironment.h"
#include "Tests/Contract/SocketPeers.h"

namespace ostravel::contract {

// A platform with real sockets and real time. The program is in a private network namespace.
class SocketContractEnvironment : public ContractEnvironment {
 public:
  bool waitUntil(const Condition& condition) override;
  std::chrono::nanoseconds now() const override;
  void spend(std::chrono::nanoseconds duration) override;
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

 protected:
  SocketPeers& peers() { return peers_; }

 private:
  SocketPeers peers_;
};

}  // namespace ostravel::contract
