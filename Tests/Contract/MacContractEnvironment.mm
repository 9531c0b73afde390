#import "Tests/Contract/MacContractEnvironment.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

#import "Platform/macOS/Flow/NetworkEndpoints.h"
#import "Platform/macOS/Flow/SystemTCPFlow.h"
#import "Platform/macOS/Foundation/FoundationText.h"
#include "Tests/Contract/ContractPlatforms.h"
#import "Tests/StandInMac/StandInNetworkExtension.h"
#include "Tests/StandInMac/WorkerPool.h"

namespace ostravel::contract {

namespace {

const PlatformRegistration kRegistration("macOS",
                                         [] { return std::make_unique<MacContractEnvironment>(); });

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

void MacContractEnvironment::settle() {
  standin::settleWorkers();
}

FlowEnds MacContractEnvironment::makeFlow(const std::string& signingIdentifier) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  const int listener = listenOnLoopback(address, size);
  auto application = peers().makeUnconnected().first;
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

}  // namespace ostravel::contract
