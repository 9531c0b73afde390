#pragma once

#include <optional>
#include <string>

#include "Platform/Interface/AppProxyUDPFlow.h"
#include "Platform/Simulation/RunState.h"

namespace ostravel::simulation {

// A UDP flow. Made by the simulation, owned by the caller.
class SimulatedUDPFlow final : public platform::AppProxyUDPFlow {
 public:
  SimulatedUDPFlow(RunState& run, std::string name, std::string signingIdentifier,
                   std::optional<platform::HostEndpoint> localEndpoint);

  const std::string& name() const { return name_; }

  // The closed directions, with the error of the first call for each.
  bool readWasClosed() const { return readClosed_; }
  bool writeWasClosed() const { return writeClosed_; }
  const platform::OptionalError& readCloseError() const { return readCloseError_; }
  const platform::OptionalError& writeCloseError() const { return writeCloseError_; }

  std::string sourceAppSigningIdentifier() const override;
  std::optional<platform::HostEndpoint> localEndpoint() const override;
  void closeRead(platform::OptionalError error) override;
  void closeWrite(platform::OptionalError error) override;

 private:
  RunState& run_;
  const std::string name_;
  const std::string signingIdentifier_;
  const std::optional<platform::HostEndpoint> localEndpoint_;
  bool readClosed_ = false;
  bool writeClosed_ = false;
  platform::OptionalError readCloseError_;
  platform::OptionalError writeCloseError_;
};

}  // namespace ostravel::simulation
