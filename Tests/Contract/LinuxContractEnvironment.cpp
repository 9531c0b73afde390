#include "Tests/Contract/LinuxContractEnvironment.h"

#include <sys/socket.h>

#include <cstdint>
#include <future>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "Platform/Linux/Kernel/ConntrackEntries.h"
#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Kernel/KernelAddress.h"
#include "Platform/Linux/Relay/EventLoop.h"
#include "Platform/Linux/Relay/FlowListener.h"
#include "Platform/Linux/Relay/HeldPacket.h"
#include "Platform/Linux/Relay/LinuxTCPFlow.h"
#include "Tests/Contract/ContractPlatforms.h"
#include "Tests/Platform/Linux/Support/RecordOf.h"

namespace ostravel::contract {

namespace {

// Several, so that a flow and its connection would not share one by chance.
constexpr unsigned kLoops = 3;
const PlatformRegistration kRegistration("Linux", [] {
  return std::make_unique<LinuxContractEnvironment>();
});

// The applications' destination, as the kernel knows it.
constexpr linuxplatform::SocketEndpoint kTracedDestination{
    linuxplatform::AddressFamily::ipv4, {127, 0, 113, 7}, 443};

// Redirects packets with a loop's mark to that loop.
std::unique_ptr<linuxplatform::InterceptionTable> installTable(
    linuxplatform::EventLoopGroup& loops) {
  platform::TransparentProxyNetworkSettings settings("127.0.0.1");
  settings.includedNetworkRules = {
      {{kTracedDestination.addressText(), std::to_string(kTracedDestination.port)},
       32,
       platform::NetworkRuleProtocol::tcp}};
  std::vector<linuxplatform::InterceptionTable::ListenerPorts> listeners;
  for (unsigned index = 0; index < loops.size(); ++index) {
    listeners.push_back({loops.loop(index).listener().ipv4Port(), 0});
  }
  // No packet queue is open.
  auto installed = linuxplatform::InterceptionTable::install(settings, loops.marks(), 0, listeners);
  if (!installed) {
    throw std::runtime_error(installed.error().localizedDescription);
  }
  return *std::move(installed);
}

// The kernel keeps the entry of a connection that its relay has reset for ten seconds, and would
// redirect a new one with the same addresses and ports like that one: to another loop, or to the
// listener of an earlier test.
void forgetEarlierRedirections() {
  linuxplatform::ConntrackEntries().removeDeadRedirections(
      [](const linuxplatform::SocketEndpoint& /*endpoint*/) { return false; });
}

class ResetWatcher final : public linuxplatform::RedirectPath::Watcher {
 public:
  void connectionIsMissing(unsigned /*loopIndex*/,
                           const linuxplatform::FlowTuple& /*tuple*/) override {}
  void connectionWillBeReset(const linuxplatform::FlowTuple& tuple) override {
    linuxplatform::ConntrackEntries().allowReopening(tuple);
  }
  void connectionsCannotBeAccepted(unsigned /*loopIndex*/, linuxplatform::AddressFamily /*family*/,
                                   int /*error*/) override {}
};

// The held SYN of a played application.
class PlayedPacket final : public linuxplatform::HeldPacket {
 public:
  PlayedPacket(linuxplatform::EventLoopGroup& loops, std::shared_ptr<SocketPeer> application)
      : loops_(loops), application_(std::move(application)) {}
  ~PlayedPacket() override { accept(); }

  void accept() override {
    if (takeVerdict()) {
      application_->noteLeftToSystem();
    }
  }
  void redirect(unsigned loopIndex) override {
    if (!takeVerdict()) {
      return;
    }
    const std::uint32_t mark = loops_.marks().redirect(loopIndex);
    ::setsockopt(application_->descriptor(), SOL_SOCKET, SO_MARK, &mark, sizeof mark);
    const linuxplatform::KernelAddress address(kTracedDestination);
    application_->connectTo(address.get(), address.size);
  }
  void refuse() override {
    if (takeVerdict()) {
      application_->noteRefused();
    }
  }

 private:
  // The first one counts.
  bool takeVerdict() { return !std::exchange(hasVerdict_, true); }

  linuxplatform::EventLoopGroup& loops_;
  const std::shared_ptr<SocketPeer> application_;
  bool hasVerdict_ = false;
};

linuxplatform::SocketEndpoint loopback(std::uint16_t port) {
  return {linuxplatform::AddressFamily::ipv4, {127, 0, 0, 1}, port};
}

}  // namespace

LinuxContractEnvironment::LinuxContractEnvironment()
    : platform_({linuxplatform::LinuxPlatform::LogSink::standardError}),
      loops_(descriptors_, kLoops),
      table_(installTable(loops_)),
      watcher_(std::make_shared<ResetWatcher>()) {
  forgetEarlierRedirections();
  loops_.redirectPath().setWatcher(watcher_);
  for (const auto family :
       {linuxplatform::AddressFamily::ipv4, linuxplatform::AddressFamily::ipv6}) {
    loops_.redirectPath().setUsable(family, true);
  }
}

LinuxContractEnvironment::~LinuxContractEnvironment() {
  loops_.stop();
}

void LinuxContractEnvironment::settle() {
  // Between two items a loop checks its sockets, and what that starts runs before the item after
  // the next.
  constexpr int kRounds = 3;
  for (int round = 0; round < kRounds; ++round) {
    for (unsigned i = 0; i < loops_.size(); ++i) {
      std::promise<void> ran;
      loops_.loop(i).post([&ran] { ran.set_value(); });
      ran.get_future().wait();
    }
  }
}

FlowEnds LinuxContractEnvironment::makeFlow(const std::string& signingIdentifier) {
  auto [application, port] = peers().makeUnconnected();
  auto& loop = loops_.loop(nextLoop_++ % loops_.size());
  auto flow = std::make_shared<linuxplatform::LinuxTCPFlow>(
      loop, loopback(port), linuxplatform::test::recordOf(signingIdentifier, kTracedDestination),
      std::make_unique<PlayedPacket>(loops_, application), nullptr,
      // The suite's destination, which nothing reaches from this namespace.
      linuxplatform::FlowName{.host = kDestination.hostname});
  return {std::move(flow), std::move(application)};
}

std::shared_ptr<platform::TCPConnection> LinuxContractEnvironment::connect(
    const platform::HostEndpoint& endpoint) {
  if (linuxplatform::EventLoop::current() != nullptr) {
    return linuxplatform::EventLoopGroup::connect(endpoint);
  }
  std::promise<std::shared_ptr<platform::TCPConnection>> made;
  loops_.loop(nextLoop_++ % loops_.size()).post([&endpoint, &made] {
    made.set_value(linuxplatform::EventLoopGroup::connect(endpoint));
  });
  return made.get_future().get();
}

}  // namespace ostravel::contract
