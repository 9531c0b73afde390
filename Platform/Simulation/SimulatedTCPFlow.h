#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Platform/Interface/AppProxyTCPFlow.h"
#include "Platform/Simulation/SimulatedPeer.h"

namespace ostravel::simulation {

// A TCP flow whose application is played by the test:
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

  // Opening fails, now or when it is asked for.
  void failOpen(platform::Error error);
  // Opening does not complete until it is released.
  void holdOpen();
  void releaseOpen();
  bool openWasRequested() const { return openWasRequested_; }
  // With which local endpoint, if any.
  const std::optional<platform::HostEndpoint>& requestedLocalEndpoint() const {
    return requestedLocalEndpoint_;
  }

  // What was closed, by the first call of each; the error is the one that it was closed with.
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
  // True, and done, when the error ends a flow of which nothing has been asked.
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
