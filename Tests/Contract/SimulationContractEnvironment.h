#pragma once

#include <deque>
#include <memory>

#include "Platform/Simulation/Simulation.h"
#include "Tests/Contract/ContractEnvironment.h"

namespace ostravel::contract {

// The simulation in a given order. Virtual time; nothing happens unless the test waits for it.
class SimulationContractEnvironment final : public ContractEnvironment {
 public:
  explicit SimulationContractEnvironment(const simulation::SimulationOptions& options);

  platform::Platform& platform() override { return simulation_; }
  bool throwsProgrammingErrors() const override { return true; }
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
  std::vector<std::byte> listeningAddress() override;
  std::vector<std::byte> refusingAddress() override;
  std::vector<std::byte> silentAddress() override;
  std::vector<std::byte> listeningLocalAddress() override;
  std::vector<std::byte> refusingLocalAddress() override;
  std::vector<std::string> localDeliveries() override;

 private:
  simulation::Simulation simulation_;
  std::deque<std::shared_ptr<simulation::SimulatedPeer>> accepted_;
};

}  // namespace ostravel::contract
