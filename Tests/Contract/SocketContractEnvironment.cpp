#include "Tests/Contract/SocketContractEnvironment.h"

#include <thread>

#include "Tests/Support/WaitUntil.h"

namespace ostravel::contract {

namespace {

using namespace std::chrono_literals;

platform::HostEndpoint endpointOf(const SocketPeers::Address& address) {
  return {"127.0.0.1", std::to_string(SocketPeers::portOf(address))};
}

}  // namespace

bool SocketContractEnvironment::waitUntil(const Condition& condition) {
  return testing::waitUntil(condition);
}

std::chrono::nanoseconds SocketContractEnvironment::now() const {
  return std::chrono::steady_clock::now().time_since_epoch();
}

void SocketContractEnvironment::spend(std::chrono::nanoseconds duration) {
  std::this_thread::sleep_for(duration);
}

platform::HostEndpoint SocketContractEnvironment::listeningEndpoint() {
  return endpointOf(peers_.listeningAddress());
}

std::shared_ptr<ContractPeer> SocketContractEnvironment::acceptPeer() {
  std::shared_ptr<ContractPeer> peer;
  waitUntil([&] {
    peer = peers_.takeAccepted();
    return peer != nullptr;
  });
  return peer;
}

platform::HostEndpoint SocketContractEnvironment::refusingEndpoint() {
  return endpointOf(peers_.refusingAddress());
}

platform::HostEndpoint SocketContractEnvironment::silentEndpoint() {
  return endpointOf(peers_.silentAddress());
}

}  // namespace ostravel::contract
