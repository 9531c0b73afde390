#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Platform/Interface/AppProxyTCPFlow.h"
#include "Platform/Simulation/SimulatedPeer.h"

namespace ostravel::simulation {

// A TCP flow whose application is controlled by the test:
//
//   const auto flow = simulation.makeTCPFlow("com.example.app", {{"example.com", "443"}});
//   flow->application()->send("hello");
//
// Made by the simulation, owned by the caller. Opens at once unless the test holds it.
// Reading or writing before it was opened throws std::logic_error.
class SimulatedTCPFlow final : public platform::AppProxyTCPFlow,
                               public std::enable_shared_from_this<SimulatedTCPFlow> {
 public:
  SimulatedTCPFlow(RunState& run, std::string name, std::string signingIdentifier,
                   std::optional<platform::HostEndpoint> remoteEndpoint);
  ~SimulatedTCPFlow() override;

  // --- The application's side.

  const std::shared_ptr<SimulatedPeer>& application() const { return application_; }
  const std::string& name() const { return application_->name(); }

  // Makes a pending or later open() fail.
  void failOpen(platform::Error error);
  // Opening does not complete until it is released.
  void holdOpen();
  void releaseOpen();
  bool openWasRequested() const { return openWasRequested_; }
  // The local endpoint that open() received, if any.
  const std::optional<platform::HostEndpoint>& requestedLocalEndpoint() const {
    return requestedLocalEndpoint_;
  }

  // The closed directions, with the error of the first call for each.
  bool readWasClosed() const { return readClosed_; }
  bool writeWasClosed() const { return writeClosed_; }
  const platform::OptionalError& readCloseError() const { return readCloseError_; }
  const platform::OptionalError& writeCloseError() const { return writeCloseError_; }

  // At the end of a run; see SimulatedPeer.
  void dropCompletions();

  // --- The provider's side.

  std::string sourceAppSigningIdentifier() const override;
  std::optional<platform::HostEndpoint> remoteEndpoint() const override;
  void open(std::optional<platform::HostEndpoint> localEndpoint,
            platform::ErrorCompletion completion) override;
  void read(platform::ReadCompletion completion) override;
  void write(platform::Data data, platform::ErrorCompletion completion) override;
  void closeRead(platform::OptionalError error) override;
  void closeWrite(platform::OptionalError error) override;

 private:
  void scheduleOpen();
  void completeOpen();
  void requireOpened(const char* operation) const;
  // Leaves the flow to the system if this error ends it before its first operation; true if so.
  bool giveBack(const char* call, const platform::OptionalError& error);

  RunState& run_;
  const std::shared_ptr<SimulatedPeer> application_;
  const std::string signingIdentifier_;
  const std::optional<platform::HostEndpoint> remoteEndpoint_;

  platform::OptionalError openFailure_;
  bool holdingOpen_ = false;
  bool openWasRequested_ = false;
  bool opened_ = false;
  // The first read or write releases the application's first packet.
  bool isPacketHeld_ = true;
  std::optional<platform::HostEndpoint> requestedLocalEndpoint_;
  platform::ErrorCompletion openCompletion_;

  bool readClosed_ = false;
  bool writeClosed_ = false;
  platform::OptionalError readCloseError_;
  platform::OptionalError writeCloseError_;
};

}  // namespace ostravel::simulation
