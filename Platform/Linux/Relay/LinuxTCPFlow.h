#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Base/ReferenceCounted.h"
#include "Platform/Interface/AppProxyTCPFlow.h"
#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Relay/ConnectByName.h"
#include "Platform/Linux/Relay/FlowListener.h"
#include "Platform/Linux/Relay/FlowName.h"
#include "Platform/Linux/Relay/HeldPacket.h"
#include "Platform/Linux/Relay/StreamSocket.h"
#include "Platform/Linux/Statistics/FlowRecord.h"

namespace ostravel::linuxplatform {

class EventLoop;

// An application's TCP connection whose SYN is held. Made with std::make_shared on any thread;
// afterwards everything happens on its event loop, and calls from other threads are posted there.
//
//   held --read or write--> released --the connection arrives--> carried
//
// Closing ends it in each of these states. The application's connect() reports the truth: it
// succeeds once the first read or write has shown that the tunnel is established, or once the flow
// is left to the system. While the SYN is held, closing with an error leaves the flow to the
// system; closing without one refuses it, because that is the proxy's decision. A flow that is
// destroyed unclosed is left to the system while the SYN is held, and is reset afterwards.
class LinuxTCPFlow final : public platform::AppProxyTCPFlow,
                           public StreamSocket,
                           private FlowListener::Waiter {
 public:
  // source: the application's address. record: not null; knows the application, whose identifier is
  // valid UTF-8, and the destination. user is charged for the tunnel's resources; null if unknown.
  // name: of the destination, if it has one.
  LinuxTCPFlow(EventLoop& loop, const SocketEndpoint& source, Reference<FlowRecord> record,
               std::unique_ptr<HeldPacket> packet, Reference<UserShare> user = nullptr,
               std::optional<FlowName> name = std::nullopt);
  ~LinuxTCPFlow() override;

  std::string sourceAppSigningIdentifier() const override { return application(); }
  platform::FlowObserver* observer() override { return record_.get(); }
  // By name, if it has one; after open() only if the proxy is asked for the name.
  std::optional<platform::HostEndpoint> remoteEndpoint() const override;

  // Succeeds without touching the packet; ECANCELED if the flow is closed or destroyed before.
  void open(std::optional<platform::HostEndpoint> localEndpoint,
            platform::ErrorCompletion completion) override;
  // ETIMEDOUT if the connection has not arrived limits::kAcceptTimeout after the SYN was released,
  // ECONNABORTED if the flow was left to the system because redirected connections do not arrive.
  // ECANCELED if the direction is closed. Otherwise the socket's error.
  void read(platform::ReadCompletion completion) override;
  void write(platform::Data data, platform::ErrorCompletion completion) override;
  void closeRead(platform::OptionalError error) override;
  void closeWrite(platform::OptionalError error) override;

 private:
  enum class Stage : std::uint8_t { held, released, carried, ended };

  std::optional<ConnectByName> connectByName() const;
  void releasePacket();
  std::shared_ptr<LinuxTCPFlow> sharedSelf();
  std::shared_ptr<FlowListener::Waiter> waiter();
  void leaveHeld();
  void close(Direction direction, const platform::OptionalError& error);
  void endHeld(const platform::OptionalError& error);
  void prepareReset();

  const SocketEndpoint& destination() const { return record_->destination(); }
  FlowTuple tuple() const override;
  const std::string& application() const override { return *record_->application(); }
  void accepted(LoopSocket socket) override;
  void timedOut() override;

  void streamFailed(int /*error*/) override {}
  void streamEnded() override {}
  FlowRecord* record() const override { return record_.get(); }

  platform::HostEndpoint remoteLiteral() const;

  const SocketEndpoint source_;
  Stage stage_ = Stage::held;
  // Null if there is none, as for most flows. Changed by open() only.
  std::unique_ptr<FlowName> name_;
  std::unique_ptr<HeldPacket> packet_;
  const Reference<FlowRecord> record_;
};

}  // namespace ostravel::linuxplatform
