#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Interface/AppProxyTCPFlow.h"
#include "Platform/Interface/AppProxyUDPFlow.h"
#include "Platform/Simulation/SimulatedTCPFlow.h"
#include "Tests/Simulator/Strand.h"
#include "Tests/Simulator/World.h"

namespace ostravel::simulator {

// A simulated TCP flow whose operations and completions are recorded. Owned by the provider alone
// as soon as it was offered.
class ObservedFlow final : public platform::AppProxyTCPFlow {
 public:
  ObservedFlow(World& world, std::uint32_t number, const OfferedFlow& facts);
  ~ObservedFlow() override;

  const std::shared_ptr<simulation::SimulatedTCPFlow>& simulated() const { return flow_; }
  const std::shared_ptr<Strand>& strand() const { return strand_; }

  std::string sourceAppSigningIdentifier() const override;
  std::optional<platform::HostEndpoint> remoteEndpoint() const override;
  void open(std::optional<platform::HostEndpoint> localEndpoint,
            platform::ErrorCompletion completion) override;
  void read(platform::ReadCompletion completion) override;
  void write(platform::Data data, platform::ErrorCompletion completion) override;
  void closeRead(platform::OptionalError error) override;
  void closeWrite(platform::OptionalError error) override;

 private:
  World& world_;
  const std::uint32_t number_;
  const std::shared_ptr<simulation::SimulatedTCPFlow> flow_;
  const std::shared_ptr<Strand> strand_;
};

// A UDP flow whose closing is recorded.
class ObservedUDPFlow final : public platform::AppProxyUDPFlow {
 public:
  ObservedUDPFlow(World& world, std::uint32_t number, const OfferedFlow& facts);
  ~ObservedUDPFlow() override;

  std::string sourceAppSigningIdentifier() const override { return facts_.identifier; }
  std::optional<platform::HostEndpoint> localEndpoint() const override;
  void closeRead(platform::OptionalError error) override;
  void closeWrite(platform::OptionalError error) override;

 private:
  World& world_;
  const std::uint32_t number_;
  const OfferedFlow facts_;
};

// A flow of a kind that the system does not know; closing it would be a mistake.
class ObservedUnknownFlow final : public platform::AppProxyFlow {
 public:
  ObservedUnknownFlow(World& world, std::uint32_t number, const OfferedFlow& facts);

  std::string sourceAppSigningIdentifier() const override { return identifier_; }
  void closeRead(platform::OptionalError error) override;
  void closeWrite(platform::OptionalError error) override;

 private:
  World& world_;
  const std::uint32_t number_;
  const std::string identifier_;
};

}  // namespace ostravel::simulator
