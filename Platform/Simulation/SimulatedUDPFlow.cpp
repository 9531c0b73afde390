#include "Platform/Simulation/SimulatedUDPFlow.h"

#include <utility>

namespace ostravel::simulation {

SimulatedUDPFlow::SimulatedUDPFlow(RunState& run, std::string name, std::string signingIdentifier,
                                   std::optional<platform::HostEndpoint> localEndpoint)
    : run_(run),
      name_(std::move(name)),
      signingIdentifier_(std::move(signingIdentifier)),
      localEndpoint_(std::move(localEndpoint)) {}

std::string SimulatedUDPFlow::sourceAppSigningIdentifier() const {
  return signingIdentifier_;
}

std::optional<platform::HostEndpoint> SimulatedUDPFlow::localEndpoint() const {
  return localEndpoint_;
}

void SimulatedUDPFlow::closeRead(platform::OptionalError error) {
  run_.journal.add(name_, "closeRead" + (error ? ": " + error->localizedDescription : ""));
  if (!std::exchange(readClosed_, true)) {
    readCloseError_ = std::move(error);
  }
}

void SimulatedUDPFlow::closeWrite(platform::OptionalError error) {
  run_.journal.add(name_, "closeWrite" + (error ? ": " + error->localizedDescription : ""));
  if (!std::exchange(writeClosed_, true)) {
    writeCloseError_ = std::move(error);
  }
}

}  // namespace ostravel::simulation
