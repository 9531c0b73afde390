#include "Platform/Simulation/SimulatedTCPFlow.h"

#include <cstddef>
#include <limits>
#include <stdexcept>
#include <utility>

#include "Platform/Simulation/SimulatedError.h"

namespace ostravel::simulation {

SimulatedTCPFlow::SimulatedTCPFlow(RunState& run, std::string name, std::string signingIdentifier,
                                   std::optional<platform::HostEndpoint> remoteEndpoint)
    : run_(run),
      application_(std::make_shared<SimulatedPeer>(run, std::move(name))),
      signingIdentifier_(std::move(signingIdentifier)),
      remoteEndpoint_(std::move(remoteEndpoint)) {}

SimulatedTCPFlow::~SimulatedTCPFlow() {
  if (openCompletion_) {
    run_.queue.post([&run = run_, name = name(), completion = std::move(openCompletion_)] {
      run.journal.add(name, "open failed: " + operationCancelled().localizedDescription);
      completion(operationCancelled());
    });
  }
  application_->detachUnclosed();
}

void SimulatedTCPFlow::failOpen(platform::Error error) {
  openFailure_ = std::move(error);
  scheduleOpen();
}

void SimulatedTCPFlow::holdOpen() {
  holdingOpen_ = true;
}

void SimulatedTCPFlow::releaseOpen() {
  holdingOpen_ = false;
  scheduleOpen();
}

std::string SimulatedTCPFlow::sourceAppSigningIdentifier() const {
  return signingIdentifier_;
}

std::optional<platform::HostEndpoint> SimulatedTCPFlow::remoteEndpoint() const {
  return remoteEndpoint_;
}

void SimulatedTCPFlow::open(std::optional<platform::HostEndpoint> localEndpoint,
                            platform::ErrorCompletion completion) {
  if (std::exchange(openWasRequested_, true)) {
    throw std::logic_error(name() + ": opened a second time");
  }
  run_.journal.add(name(), "open");
  requestedLocalEndpoint_ = std::move(localEndpoint);
  openCompletion_ = std::move(completion);
  scheduleOpen();
}

void SimulatedTCPFlow::read(platform::ReadCompletion completion) {
  requireOpened("read");
  isPacketHeld_ = false;
  application_->read(1, std::numeric_limits<std::size_t>::max(), std::move(completion));
}

void SimulatedTCPFlow::write(platform::Data data, platform::ErrorCompletion completion) {
  requireOpened("write");
  isPacketHeld_ = false;
  application_->write(data, std::move(completion));
}

void SimulatedTCPFlow::closeRead(platform::OptionalError error) {
  if (!std::exchange(readClosed_, true)) {
    readCloseError_ = error;
  }
  if (!giveBack("closeRead", error)) {
    application_->closeReading(error);
  }
}

void SimulatedTCPFlow::closeWrite(platform::OptionalError error) {
  if (!std::exchange(writeClosed_, true)) {
    writeCloseError_ = error;
  }
  if (!giveBack("closeWrite", error)) {
    application_->closeWriting(error);
  }
}

bool SimulatedTCPFlow::giveBack(const char* call, const platform::OptionalError& error) {
  if (!error || !isPacketHeld_ || !application_->isUntouched()) {
    return false;
  }
  application_->leaveToSystem(call, *error);
  return true;
}

void SimulatedTCPFlow::dropCompletions() {
  // The held completion of open() may be the only owner of this flow.
  const auto completion = std::exchange(openCompletion_, nullptr);
  application_->dropCompletions();
}

void SimulatedTCPFlow::scheduleOpen() {
  if (openCompletion_ && !holdingOpen_) {
    run_.deliver(shared_from_this(), &SimulatedTCPFlow::completeOpen);
  }
}

void SimulatedTCPFlow::completeOpen() {
  if (!openCompletion_ || holdingOpen_) {
    return;
  }
  const auto completion = std::exchange(openCompletion_, nullptr);
  if (!openFailure_ && run_.faults.openFails()) {
    openFailure_ = connectionReset();
  }
  if (openFailure_) {
    run_.journal.add(name(), "open failed: " + openFailure_->localizedDescription);
    completion(openFailure_);
    return;
  }
  run_.journal.add(name(), "opened");
  opened_ = true;
  application_->establish();
  completion(std::nullopt);
}

void SimulatedTCPFlow::requireOpened(const char* operation) const {
  if (!opened_) {
    throw std::logic_error(name() + ": " + operation + " before it was opened");
  }
}

}  // namespace ostravel::simulation
