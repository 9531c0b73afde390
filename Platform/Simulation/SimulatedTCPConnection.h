#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "Platform/Interface/HostEndpoint.h"
#include "Platform/Interface/TCPConnection.h"
#include "Platform/Interface/TransparentProxyProvider.h"
#include "Platform/Shared/StateObservers.h"
#include "Platform/Simulation/SimulatedPeer.h"

namespace ostravel::simulation {

// A connection whose peer, the proxy, is controlled by the test. Created by the simulation at the
// provider's request, owned by the provider. It is connecting until the test changes its state;
// reads and writes wait for that. If it is destroyed without having been cancelled, the peer sees a
// reset.
//
// States: connecting and waiting -> connected -> disconnected; cancelled from everywhere. It is
// disconnected by the peer's reset, and after a read has reported the end of the stream. Changes of
// state through the run queue keep their order.
class SimulatedTCPConnection final : public platform::TCPConnection,
                                     public std::enable_shared_from_this<SimulatedTCPConnection> {
 public:
  SimulatedTCPConnection(RunState& run, std::string name, platform::HostEndpoint endpoint,
                         platform::TLSPolicy tls);
  ~SimulatedTCPConnection() override;

  // --- The peer's side.

  const std::shared_ptr<SimulatedPeer>& peer() const { return peer_; }
  const std::string& name() const { return peer_->name(); }
  const platform::HostEndpoint& endpoint() const { return endpoint_; }
  platform::TLSPolicy tls() const { return tls_; }

  // The peer's answer to the attempt to connect, delivered through the run queue. An acceptance may
  // become a refusal by the run's faults.
  void accept();
  void refuse();
  void refuse(platform::Error error);
  // Changes the state and notifies the observers inside the call, as a thread of the platform
  // would.
  void setState(platform::TCPConnectionState state, platform::OptionalError error = std::nullopt);

  bool wasCancelled() const { return wasCancelled_; }
  std::size_t observerCount() const { return observers_.count(); }

  // --- The provider's side.

  platform::TCPConnectionState state() const override { return state_; }
  platform::OptionalError error() const override { return error_; }
  // Throws std::logic_error for a key path other than "state".
  void addObserver(std::weak_ptr<platform::KeyValueObserver> observer,
                   std::string_view keyPath) override;
  void removeObserver(platform::KeyValueObserver& observer, std::string_view keyPath) override;
  void read(std::size_t minimum, std::size_t maximum, platform::ReadCompletion completion) override;
  void write(platform::Data data, platform::ErrorCompletion completion) override;
  void cancel() override;

 private:
  void changeStateLater(platform::TCPConnectionState state, platform::OptionalError error);
  void applyState(platform::TCPConnectionState state, platform::OptionalError error);

  RunState& run_;
  const std::shared_ptr<SimulatedPeer> peer_;
  const platform::HostEndpoint endpoint_;
  const platform::TLSPolicy tls_;
  // Both keep the changes of state in order.
  const std::shared_ptr<WorkLane> lane_;
  std::chrono::nanoseconds lastChange_{0};
  platform::TCPConnectionState state_ = platform::TCPConnectionState::connecting;
  platform::OptionalError error_;
  bool wasCancelled_ = false;
  platform::StateObservers observers_;
};

}  // namespace ostravel::simulation
