#include "Tests/Contract/SimulationContractEnvironment.h"

#include <utility>

#include "Tests/Contract/ContractPlatforms.h"

namespace ostravel::contract {

namespace {

using namespace std::chrono_literals;

const platform::HostEndpoint kListening{"127.0.0.1", "8080"};
const platform::HostEndpoint kRefusing{"127.0.0.1", "8081"};
const platform::HostEndpoint kSilent{"127.0.0.1", "8082"};

class Peer final : public ContractPeer {
 public:
  explicit Peer(std::shared_ptr<simulation::SimulatedPeer> peer) : peer_(std::move(peer)) {}

  void send(std::string bytes) override { peer_->send(bytes); }
  void endSending() override { peer_->endSending(); }
  void reset() override { peer_->reset(); }
  // In the simulation, a write completes when the far end has received it.
  void stopReceiving() override {}
  void resumeReceiving() override {}
  std::string received() const override { return peer_->received(); }
  std::size_t receivedCount() const override { return peer_->received().size(); }
  bool sawEnd() const override { return peer_->sawEnd(); }
  bool sawReset() const override { return peer_->sawReset(); }
  bool wasLeftToSystem() const override { return peer_->wasLeftToSystem(); }

 private:
  const std::shared_ptr<simulation::SimulatedPeer> peer_;
};

const PlatformRegistration kFixedOrder("Simulation", [] {
  return std::make_unique<SimulationContractEnvironment>(simulation::SimulationOptions{});
});
const PlatformRegistration kSeededOrder("SeededSimulation", [] {
  const simulation::FaultPlan harmless{.latency = 0.3, .maximumLatency = 1ms, .shortRead = 0.3};
  return std::make_unique<SimulationContractEnvironment>(simulation::SimulationOptions{
      .order = simulation::RunOrder::seeded, .seed = 20, .faults = harmless});
});

}  // namespace

SimulationContractEnvironment::SimulationContractEnvironment(
    const simulation::SimulationOptions& options)
    : simulation_(options) {
  simulation_.journal().setEnabled(false);
  simulation_.onConnectionCreated([this](simulation::SimulatedTCPConnection& connection) {
    if (connection.endpoint() == kListening) {
      accepted_.push_back(connection.peer());
      connection.accept();
    }
    if (connection.endpoint() == kRefusing) {
      connection.refuse();
    }
  });
}

bool SimulationContractEnvironment::waitUntil(const Condition& condition) {
  return simulation_.runUntil(condition, 1h);
}

void SimulationContractEnvironment::settle() {
  simulation_.run();
}

std::chrono::nanoseconds SimulationContractEnvironment::now() const {
  return simulation_.now();
}

void SimulationContractEnvironment::spend(std::chrono::nanoseconds duration) {
  simulation_.spend(duration);
}

FlowEnds SimulationContractEnvironment::makeFlow(const std::string& signingIdentifier) {
  const auto flow = simulation_.makeTCPFlow(signingIdentifier, kDestination);
  return {flow, std::make_shared<Peer>(flow->application())};
}

std::shared_ptr<platform::TCPConnection> SimulationContractEnvironment::connect(
    const platform::HostEndpoint& endpoint) {
  return simulation_.createTCPConnection(endpoint, platform::TLSPolicy::disabled);
}

platform::HostEndpoint SimulationContractEnvironment::listeningEndpoint() {
  return kListening;
}

std::shared_ptr<ContractPeer> SimulationContractEnvironment::acceptPeer() {
  if (accepted_.empty()) {
    return nullptr;
  }
  auto peer = std::make_shared<Peer>(accepted_.front());
  accepted_.pop_front();
  return peer;
}

platform::HostEndpoint SimulationContractEnvironment::refusingEndpoint() {
  return kRefusing;
}

platform::HostEndpoint SimulationContractEnvironment::silentEndpoint() {
  return kSilent;
}

std::vector<std::byte> SimulationContractEnvironment::listeningAddress() {
  simulation_.sockets().proxyListening(true);
  return std::vector<std::byte>(16);
}

std::vector<std::byte> SimulationContractEnvironment::refusingAddress() {
  simulation_.sockets().proxyListening(false);
  return std::vector<std::byte>(16);
}

std::vector<std::byte> SimulationContractEnvironment::silentAddress() {
  simulation_.sockets().proxySilent();
  return std::vector<std::byte>(16);
}

std::vector<std::byte> SimulationContractEnvironment::listeningLocalAddress() {
  simulation_.sockets().localListening(true);
  return std::vector<std::byte>(2);
}

std::vector<std::byte> SimulationContractEnvironment::refusingLocalAddress() {
  simulation_.sockets().localListening(false);
  return std::vector<std::byte>(2);
}

std::vector<std::string> SimulationContractEnvironment::localDeliveries() {
  return simulation_.sockets().localDeliveries();
}

}  // namespace ostravel::contract
