#import "Tests/Contract/MacContractEnvironment.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <thread>
#include <utility>

#import "Platform/macOS/Flow/NetworkEndpoints.h"
#import "Platform/macOS/Flow/SystemTCPFlow.h"
#import "Platform/macOS/Foundation/FoundationText.h"
#include "Tests/Contract/ContractPlatforms.h"
#import "Tests/StandInMac/StandInNetworkExtension.h"
#include "Tests/StandInMac/WorkerPool.h"

namespace ostravel::contract {

namespace {

using namespace std::chrono_literals;

// Far longer than anything takes, also on a busy machine and with a sanitizer.
constexpr auto kLimit = 60s;
// How often a condition is asked for while it is waited for.
constexpr auto kPause = 200us;

const PlatformRegistration kRegistration("macOS",
                                         [] { return std::make_unique<MacContractEnvironment>(); });

platform::HostEndpoint endpointOf(const SocketPeers::Address& address) {
  return {"127.0.0.1", std::to_string(SocketPeers::portOf(address))};
}

int listenOnLoopback(sockaddr_in& address, socklen_t& size) {
  const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (::bind(descriptor, generic, size) < 0 || ::listen(descriptor, 1) < 0 ||
      ::getsockname(descriptor, generic, &size) < 0) {
    throw std::runtime_error("loopback listener");
  }
  return descriptor;
}

}  // namespace

MacContractEnvironment::MacContractEnvironment()
    : provider_(macos::Reference<NETransparentProxyProvider*>::adopting(
          [[NETransparentProxyProvider alloc] init])),
      context_(provider_.get()) {}

bool MacContractEnvironment::waitUntil(const Condition& condition) {
  const auto end = std::chrono::steady_clock::now() + kLimit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

void MacContractEnvironment::settle() {
  standin::settleWorkers();
}

std::chrono::nanoseconds MacContractEnvironment::now() const {
  return std::chrono::steady_clock::now().time_since_epoch();
}

void MacContractEnvironment::spend(std::chrono::nanoseconds duration) {
  std::this_thread::sleep_for(duration);
}

FlowEnds MacContractEnvironment::makeFlow(const std::string& signingIdentifier) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  const int listener = listenOnLoopback(address, size);
  auto application = peers_.makeUnconnected().first;
  application->connectTo(reinterpret_cast<const sockaddr*>(&address), size);
  const int descriptor = ::accept(listener, nullptr, nullptr);
  ::close(listener);
  @autoreleasepool {
    NEAppProxyTCPFlow* const flow =
        standin::makeTCPFlow({.signingIdentifier = macos::makeString(signingIdentifier),
                              .endpoint = macos::makeNWHostEndpoint(kDestination)},
                             descriptor);
    standin::recordOf(flow)->onLeftToSystem([application] { application->noteLeftToSystem(); });
    return {std::make_shared<macos::SystemTCPFlow>(flow), std::move(application)};
  }
}

std::shared_ptr<platform::TCPConnection> MacContractEnvironment::connect(
    const platform::HostEndpoint& endpoint) {
  return context_.createTCPConnection(endpoint, platform::TLSPolicy::disabled);
}

platform::HostEndpoint MacContractEnvironment::listeningEndpoint() {
  return endpointOf(peers_.listeningAddress());
}

std::shared_ptr<ContractPeer> MacContractEnvironment::acceptPeer() {
  std::shared_ptr<ContractPeer> peer;
  waitUntil([&] {
    peer = peers_.takeAccepted();
    return peer != nullptr;
  });
  return peer;
}

platform::HostEndpoint MacContractEnvironment::refusingEndpoint() {
  return endpointOf(peers_.refusingAddress());
}

platform::HostEndpoint MacContractEnvironment::silentEndpoint() {
  return endpointOf(peers_.silentAddress());
}

}  // namespace ostravel::contract
